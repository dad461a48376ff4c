// The host and user name a departure record of this machine carries.
#ifndef KELMSG_TESTS_SUPPORT_SYSTEMNAMES_H_
#define KELMSG_TESTS_SUPPORT_SYSTEMNAMES_H_

#include <string>

namespace bustest {

std::string HostName();
std::string UserName();

}  // namespace bustest

#endif  // KELMSG_TESTS_SUPPORT_SYSTEMNAMES_H_
