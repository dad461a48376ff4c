// What a bus with TLS and passwords refuses: brokers it cannot trust and
// clients without the right password, each in one line that names the
// reason and never the password.
#include <gtest/gtest.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "TestBroker.h"
#include "TestTlsFiles.h"

namespace {

TEST(KelBusSecurity, UntrustedBrokersAndWrongPasswordsAreRefusedInOneLine) {
  const TestBroker broker(TestBroker::Security::kTlsAndPasswords);
  ASSERT_TRUE(broker.Running()) << broker.Error();
  const TestTlsFiles& files = TestTlsFiles::Get();
  const std::string port = std::to_string(broker.Port());
  const std::string user = "mqtts://" + files.user;
  struct Row {
    std::string url, caFile, passwordFile;
    const char* why;
  };
  const Row rows[] = {
      {user + "@127.0.0.1:" + port, files.otherCaFile, files.userPasswordFile,
       "certificate verify failed"},
      // 127.1 is 127.0.0.1 under a name that the certificate does not hold.
      {user + "@127.1:" + port, files.caFile, files.userPasswordFile,
       "host name verification failed"},
      {user + "@127.0.0.1:" + port, files.caFile, files.wrongPasswordFile, "Not authorized"},
      {user + ":" + files.password + "x@127.0.0.1:" + port, files.caFile, "", "Not authorized"},
  };
  for (const Row& row : rows) {
    setenv("KELBUS_URL", row.url.c_str(), 1);
    setenv("KELBUS_CA_FILE", row.caFile.c_str(), 1);
    setenv("KELBUS_PASSWORD_FILE", row.passwordFile.c_str(), 1);
    ::testing::internal::CaptureStderr();
    int id = 0;
    EXPECT_EQ(RegisterCommunicator("intruder", &id), KELBUS_ERR_REFUSED) << row.why;
    const std::string line = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::ranges::count(line, '\n'), 1) << line;
    EXPECT_NE(line.find(row.why), std::string::npos) << line;
    EXPECT_EQ(line.find(files.password), std::string::npos) << line;
  }
}

}  // namespace
