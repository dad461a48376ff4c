#include "Controller.h"
#include "TextMessages.h"

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <algorithm>

namespace {

class AnswerCollector : public KelMsgBBMessageHandler {
 public:
  AnswerCollector(std::vector<Answer>* answers, int* arrivals)
      : m_answers(answers), m_arrivals(arrivals) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& text = static_cast<const KelMsgStringType&>(msg);
    m_answers->push_back({id, std::string(text.Data(), static_cast<std::size_t>(text.Size()))});
    ++*m_arrivals;
  }

 private:
  std::vector<Answer>* m_answers;
  int* m_arrivals;
};

}  // namespace

Controller::Controller(const char* application) : m_application(application) {
  if (KelMsgBBAPI::RegisterCommunicator(application, m_communicator) != KELBUS_OK)
    return;
  if (KelMsgBBAPI::DeclareApplicationId(m_communicator, application, false) != KELBUS_OK)
    return;
  KelMsgBBCallbackManager::SetMessageID(application);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                    new AnswerCollector(&m_answers, &m_arrivals));
  m_joined = KelMsgBBAPI::EnableReceiveHandling(m_communicator, application) == KELBUS_OK;
}

Controller::~Controller() {
  if (m_communicator > 0)
    CloseCommunicator(m_communicator);
}

ChildProcess Controller::StartPeer(std::vector<std::string> arguments,
                                   const std::string& outputPath) const {
  arguments.insert(arguments.begin(), KELMSG_FAULT_PEER);
  arguments.insert(arguments.begin() + 2, m_application);
  return ChildProcess::Exec(arguments, outputPath);
}

int Controller::Tell(const std::string& target, const std::string& text) const {
  return SendText(m_communicator, target, text);
}

bool Controller::Await(const std::function<bool(const std::vector<Answer>&)>& done,
                       std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done(m_answers)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    KelMsgBBAPI::WaitingLoop(m_communicator, static_cast<int>(left.count()), m_arrivals);
  }
  return true;
}

bool Controller::AwaitAnswer(const std::string& sender, const std::string& text,
                             std::chrono::milliseconds limit) {
  return Await(
      [&](const std::vector<Answer>& answers) {
        return std::any_of(answers.begin(), answers.end(), [&](const Answer& answer) {
          return answer.sender == sender && answer.text == text;
        });
      },
      limit);
}

void Controller::Dispatch(std::chrono::milliseconds limit) {
  Await([](const std::vector<Answer>&) { return false; }, limit);
}

std::size_t CountAnswers(const std::vector<Answer>& answers, const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      answers.begin(), answers.end(), [&](const Answer& answer) { return answer.text == text; }));
}
