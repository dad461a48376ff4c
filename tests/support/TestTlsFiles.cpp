#include "TestTlsFiles.h"

#include <filesystem>
#include <fstream>

#include "BrokerPasswordFile.h"
#include "CertificateAuthority.h"

namespace {

TestTlsFiles Make() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kelbus-tls-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("cannot create a directory for certificates");
  const std::string directory = pattern + "/";
  TestTlsFiles files{.directory = pattern,
                     .caFile = directory + "ca.pem",
                     .otherCaFile = directory + "other-ca.pem",
                     .certificateFile = directory + "broker.pem",
                     .keyFile = directory + "broker.key",
                     .passwordFile = directory + "broker.passwords",
                     .user = "solver",
                     .password = BrokerPasswordFile::NewPassword(),
                     .userPasswordFile = directory + "solver.password",
                     .wrongPasswordFile = directory + "wrong.password"};
  const CertificateAuthority ca("KelBus test CA");
  ca.Save(files.caFile, directory + "ca.key");
  ca.IssueServerCertificate({"127.0.0.1", "localhost"}, files.certificateFile, files.keyFile);
  CertificateAuthority("KelBus untrusted CA").Save(files.otherCaFile, directory + "other-ca.key");
  BrokerPasswordFile passwords(files.passwordFile);
  passwords.Set(files.user, files.password);
  for (const char* user : TestTlsFiles::kOtherUsers) {
    const std::string password = BrokerPasswordFile::NewPassword();
    passwords.Set(user, password);
    std::ofstream(files.PasswordFileOf(user)) << password << '\n';
  }
  passwords.Save();
  std::ofstream(files.userPasswordFile) << files.password << '\n';
  std::ofstream(files.wrongPasswordFile) << "not" << files.password << '\n';
  return files;
}

struct Holder {
  TestTlsFiles files = Make();
  ~Holder() {
    std::error_code ignored;
    std::filesystem::remove_all(files.directory, ignored);
  }
};

}  // namespace

const TestTlsFiles& TestTlsFiles::Get() {
  static const Holder holder;
  return holder.files;
}
