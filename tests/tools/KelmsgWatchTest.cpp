// watch: returns once the application it watches has left the bus, however
// it left.
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "TestBroker.h"

namespace {

class KelmsgWatch : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
  }

  // A watcher of `application`, ready once it says so.
  static std::unique_ptr<KelmsgProcess> Watch(const std::string& application) {
    auto watch = std::make_unique<KelmsgProcess>(std::vector<std::string>{"watch", application});
    EXPECT_TRUE(watch->WaitForOutput("watching " + application + "\n")) << watch->Err();
    return watch;
  }

  TestBroker m_broker;
};

TEST_F(KelmsgWatch, ReturnsWhenItsTargetIsKilled) {
  KelmsgProcess solver({"listen", "solver"});
  ASSERT_TRUE(solver.WaitForOutput("listening as solver\n")) << solver.Err();
  auto watch = Watch("solver");

  solver.Signal(SIGKILL);
  ASSERT_EQ(watch->ExitCode(30s), 0) << watch->Err();
  EXPECT_EQ(watch->Out(), "watching solver\nsolver has left the bus\n");
  // The library's disconnect handler confirmed the match.
  EXPECT_NE(watch->Err().find("Exit Handler -- confirm exit\n"), std::string::npos);
}

TEST_F(KelmsgWatch, IgnoresOtherApplicationsLeaving) {
  KelmsgProcess solver({"listen", "solver"});
  ASSERT_TRUE(solver.WaitForOutput("listening as solver\n"));
  KelmsgProcess mesher({"listen", "mesher"});
  ASSERT_TRUE(mesher.WaitForOutput("listening as mesher\n"));

  const KelmsgResult result = [&] {
    KelmsgProcess watch({"watch", "solver", "--timeout", "2"});
    EXPECT_TRUE(watch.WaitForOutput("watching solver\n"));
    mesher.Signal(SIGKILL);
    return KelmsgResult{watch.ExitCode(10s), watch.Out(), watch.Err()};
  }();
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("kelmsg watch: solver is still on the bus after 2 s\n"),
            std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find("app -- mesher"), std::string::npos) << "mesher's departure is seen";
}

TEST_F(KelmsgWatch, AnInterruptEndsTheWaitWithStatus130) {
  auto watch = Watch("solver");
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->ExitCode(10s), 130);
}

}  // namespace
