#include "PeerController.h"

#include <algorithm>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

#include "TextMessages.h"

namespace {

class AnswerCollector : public KelMsgBBMessageHandler {
 public:
  AnswerCollector(std::vector<Answer>& answers, int& arrivals)
      : m_answers(answers), m_arrivals(arrivals) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_answers.push_back({id, TextOf(msg)});
    ++m_arrivals;
  }

 private:
  std::vector<Answer>& m_answers;
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

bool PeerController::Await(const std::function<bool(const std::vector<Answer>&)>& done,
                           std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done(m_answers)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    m_bus.Wait(m_arrivals, static_cast<int>(left.count()));
  }
  return true;
}

std::optional<std::string> PeerController::TakeAnswer(const std::string& sender,
                                                      const std::string& prefix,
                                                      std::chrono::milliseconds limit) {
  const auto match = [&](const Answer& answer) {
    return answer.sender == sender && answer.text.rfind(prefix, 0) == 0;
  };
  if (!Await(
          [&](const auto& answers) { return std::any_of(answers.begin(), answers.end(), match); },
          limit)) {
    return std::nullopt;
  }
  const auto found = std::find_if(m_answers.begin(), m_answers.end(), match);
  std::string text = found->text;
  m_answers.erase(found);
  return text;
}

bool PeerController::AwaitReady(std::size_t count, std::chrono::milliseconds limit) {
  return Await([&](const auto&) { return Count("ready") >= count; }, limit);
}

std::size_t PeerController::Count(const std::string& text) const {
  return static_cast<std::size_t>(
      std::count_if(m_answers.begin(), m_answers.end(),
                    [&](const Answer& answer) { return answer.text == text; }));
}
