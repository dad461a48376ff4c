// PeerController: the test process's own place on the bus, from which it
// starts peers (kelmsg_test_peer, TestPeer.cpp), sends them commands and
// takes their answers.
//
//   PeerController controller;                 // joins as "controller"
//   ChildProcess peer = controller.StartPeer({"receiver"}, scratch / "receiver.out");
//   ASSERT_TRUE(controller.TakeAnswer("receiver", "ready", 10s));
//
// Start every peer through the controller: it execs them, so the bus's
// threads in this process never live on in a forked copy.
#ifndef KELMSG_TESTS_SUPPORT_PEERCONTROLLER_H_
#define KELMSG_TESTS_SUPPORT_PEERCONTROLLER_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include "ChildProcess.h"

class PeerController {
 public:
  // Joins the bus that KELBUS_URL names; Bus().Joined() tells whether that
  // worked.  The registry is this process's: whatever the test adopts beside
  // the answers is deleted with the controller.
  explicit PeerController(const char* application = "controller");

  const KelMsgBBApplication& Bus() const { return m_bus; }
  // Starts kelmsg_test_peer with `arguments` after its application name
  // (the first argument) and this controller's name; its standard output
  // and error go to `outputPath` unless it is empty.
  ChildProcess StartPeer(std::vector<std::string> arguments,
                         const std::string& outputPath = "") const;
  // Sends `text` as a raw string message; the bus's result.
  int Tell(const std::string& target, const std::string& text) const;
  // Dispatches until an answer from `sender` that begins with `prefix` has
  // arrived, and takes the first such answer out of those collected;
  // nothing when `limit` passed first.
  std::optional<std::string> TakeAnswer(const std::string& sender, const std::string& prefix,
                                        std::chrono::milliseconds limit);

  struct Answer {
    std::string sender;
    std::string text;
  };

 private:
  KelMsgBBCallbackManager m_registry;  // deletes the adopted, after leaving
  KelMsgBBApplication m_bus;
  std::vector<Answer> m_answers;
  int m_arrivals = 0;  // bumped by every answer, to end a wait
};

#endif  // KELMSG_TESTS_SUPPORT_PEERCONTROLLER_H_
