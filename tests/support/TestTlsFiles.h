// The files of a broker with TLS and passwords and of its clients, made once
// per program in a fresh temporary directory that goes at exit: a CA that the
// clients trust and one they do not, the broker's certificate for 127.0.0.1
// and localhost, its password file with the user "solver" and the others
// below, each with a password of its own, and files holding each user's
// password and a wrong one.
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
  // The other users: under the shipped access rules, each may hold the
  // application of its name.
  static constexpr const char* kOtherUsers[] = {"monitor", "eve"};
  // The file holding `user`'s password.
  std::string PasswordFileOf(const std::string& user) const {
    return directory + "/" + user + ".password";
  }
};

#endif  // KELMSG_TESTS_SUPPORT_TESTTLSFILES_H_
