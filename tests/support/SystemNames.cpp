#include "SystemNames.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>

namespace bustest {

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

std::string UserName() {
  const passwd* entry = getpwuid(geteuid());
  return entry != nullptr ? entry->pw_name : "";
}

}  // namespace bustest
