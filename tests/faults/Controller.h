// The test process's own place on the bus: it starts peers
// (kelmsg_fault_peer), sends them commands and collects their answers.
//
//   Controller controller;                    // joins as "controller"
//   ChildProcess peer = controller.StartPeer({"receiver"}, scratch / "receiver.out");
//   ASSERT_TRUE(controller.AwaitAnswer("receiver", "ready", 10s));
//
// Start every peer through the controller: it execs them, so the bus's
// threads in this process never live on in a forked copy.
#ifndef KELMSG_TESTS_FAULTS_CONTROLLER_H_
#define KELMSG_TESTS_FAULTS_CONTROLLER_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include "ChildProcess.h"

struct Answer {
  std::string sender;
  std::string text;
};

class Controller {
 public:
  // Joins the bus that KELBUS_URL names; Joined() tells whether that worked.
  explicit Controller(const char* application = "controller");
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  bool Joined() const { return m_joined; }
  int Id() const { return m_communicator; }

  // Starts kelmsg_fault_peer with `arguments` after its application name
  // (the first argument) and this controller's name; its standard output
  // and error go to `outputPath`.
  ChildProcess StartPeer(std::vector<std::string> arguments, const std::string& outputPath) const;
  // Sends `text` as a raw string message; the bus's result.
  int Tell(const std::string& target, const std::string& text) const;

  // Dispatches until `done` holds for the answers collected so far, or
  // `limit` passes; the final value of `done`.
  bool Await(const std::function<bool(const std::vector<Answer>&)>& done,
             std::chrono::milliseconds limit);
  // Await for one answer `text` from `sender`.
  bool AwaitAnswer(const std::string& sender, const std::string& text,
                   std::chrono::milliseconds limit);
  // Dispatches what arrives for `limit`, whatever it is.
  void Dispatch(std::chrono::milliseconds limit);
  const std::vector<Answer>& Answers() const { return m_answers; }
  // Forgets the answers collected so far.
  void ClearAnswers() { m_answers.clear(); }

 private:
  std::string m_application;
  int m_communicator = 0;
  bool m_joined = false;
  // Deletes what the controller adopted when it goes.
  KelMsgBBCallbackManager m_registry;
  std::vector<Answer> m_answers;
  int m_arrivals = 0;  // bumped by every answer, to end a wait
};

// The answers of `answers` that equal `text`.
std::size_t CountAnswers(const std::vector<Answer>& answers, const std::string& text);

#endif  // KELMSG_TESTS_FAULTS_CONTROLLER_H_
