#include "BusTestSupport.h"

#include <pwd.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <climits>
#include <cstring>

namespace bustest {
namespace {

const std::string* g_sendType = nullptr;
const std::string* g_sendBytes = nullptr;

int SendSize() {
  return static_cast<int>(g_sendBytes->size());
}
const char* SendType() {
  return g_sendType->c_str();
}
void SendStream(void* buffer, int size) {
  std::memcpy(buffer, g_sendBytes->data(), static_cast<std::size_t>(size));
}

std::vector<Message> g_messages;
std::vector<Report> g_reports;
int g_arrivals = 0;

void CollectMessage(const char* type, const void* buffer, int size) {
  g_messages.push_back(
      {type, std::string(static_cast<const char*>(buffer), static_cast<std::size_t>(size))});
  ++g_arrivals;
}

void CollectReport(int pid, const char* app, const char* host, const char* user) {
  g_reports.push_back({pid, app, host, user});
  ++g_arrivals;
}

template <typename Collection>
bool Await(int communicator, const Collection& collection, std::size_t count, int milliseconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (collection.size() < count) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    const int result = WaitingLoop(communicator, static_cast<int>(left.count()), &g_arrivals);
    if (result != KELBUS_OK && result != KELBUS_ERR_TIMEOUT)
      return false;
  }
  return true;
}

}  // namespace

int Send(int communicator, const std::string& target, const std::string& type,
         const std::string& bytes) {
  g_sendType = &type;
  g_sendBytes = &bytes;
  return SendRequest(communicator, target.c_str(), &SendStream, &SendSize, &SendType);
}

void Received::Reset() {
  g_messages.clear();
  g_reports.clear();
}

const std::vector<Message>& Received::Messages() {
  return g_messages;
}
const std::vector<Report>& Received::Reports() {
  return g_reports;
}

int Received::CollectMessages(int communicator) {
  return AssociateHandler(communicator, "collector", &CollectMessage);
}

int Received::CollectReports(int communicator) {
  return AssociateDisconnectHandler(communicator, "collector", &CollectReport);
}

bool Received::AwaitMessages(int communicator, std::size_t count, int milliseconds) {
  return Await(communicator, g_messages, count, milliseconds);
}

bool Received::AwaitReports(int communicator, std::size_t count, int milliseconds) {
  return Await(communicator, g_reports, count, milliseconds);
}

int& Received::Arrivals() {
  return g_arrivals;
}

Member::Member(const char* app, int flag) : m_result(RegisterCommunicator("test", &m_id)) {
  if (m_result == KELBUS_OK && app != nullptr)
    m_result = DeclareApplicationId(m_id, app, flag);
}

Member::~Member() {
  if (m_id != 0)
    CloseCommunicator(m_id);
}

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

std::string UserName() {
  const passwd* entry = getpwuid(geteuid());
  return entry != nullptr ? entry->pw_name : "";
}

}  // namespace bustest
