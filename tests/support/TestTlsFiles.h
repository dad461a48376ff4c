// The files of a broker with TLS and passwords and of its clients, made once
// per program in a fresh temporary directory that goes at exit: a CA that the
// clients trust and one they do not, the broker's certificate for 127.0.0.1
// and localhost, its password file with one user, and files holding that
// user's password and a wrong one.
//
// Shared by the whole program; made on first use, on any one thread.
#ifndef KELMSG_TESTS_SUPPORT_TESTTLSFILES_H_
#define KELMSG_TESTS_SUPPORT_TESTTLSFILES_H_

#include <string>

struct TestTlsFiles {
  static const TestTlsFiles& Get();

  std::string directory;
  std::string caFile, otherCaFile;
  std::string certificateFile, keyFile;
  std::string passwordFile;
  std::string user, password;
  std::string userPasswordFile, wrongPasswordFile;
};

#endif  // KELMSG_TESTS_SUPPORT_TESTTLSFILES_H_
