#include "PeerController.h"

#include <algorithm>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

#include "TextMessages.h"

namespace {

class AnswerCollector : public KelMsgBBMessageHandler {
 public:
  AnswerCollector(std::vector<PeerController::Answer>& answers, int& arrivals)
      : m_answers(answers), m_arrivals(arrivals) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_answers.push_back({id, TextOf(msg)});
    ++m_arrivals;
  }

 private:
  std::vector<PeerController::Answer>& m_answers;
  int& m_arrivals;
};

}  // namespace

PeerController::PeerController(const char* application) : m_bus(application) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                    new AnswerCollector(m_answers, m_arrivals));
}

ChildProcess PeerController::StartPeer(std::vector<std::string> arguments,
                                       const std::string& outputPath) const {
  arguments.insert(arguments.begin(), KELMSG_TEST_PEER);
  arguments.insert(arguments.begin() + 2, m_bus.Name());
  return ChildProcess::Exec(arguments, outputPath);
}

int PeerController::Tell(const std::string& target, const std::string& text) const {
  return SendText(m_bus, target, text);
}

std::optional<std::string> PeerController::TakeAnswer(const std::string& sender,
                                                      const std::string& prefix,
                                                      std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto found = std::find_if(m_answers.begin(), m_answers.end(), [&](const Answer& answer) {
      return answer.sender == sender && answer.text.rfind(prefix, 0) == 0;
    });
    if (found != m_answers.end()) {
      std::string text = found->text;
      m_answers.erase(found);
      return text;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return std::nullopt;
    m_bus.Wait(m_arrivals, static_cast<int>(left.count()));
  }
}
