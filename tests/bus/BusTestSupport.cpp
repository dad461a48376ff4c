#include "BusTestSupport.h"

#include <gtest/gtest.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <cstring>
#include <mutex>

#include "SystemNames.h"

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

void CollectMessage(const char* type, const void* buffer, int size) {
  Received().messages.push_back(
      {type, std::string(static_cast<const char*>(buffer), static_cast<std::size_t>(size))});
  ++Received().arrivals;
}

void CollectReport(int pid, const char* app, const char* host, const char* user) {
  Received().reports.push_back({pid, app, host, user});
  ++Received().arrivals;
}

// Lines come from the network threads too.
std::mutex g_linesMutex;
std::vector<std::string> g_lines;

void CollectLine(const char* line) {
  std::lock_guard lock(g_linesMutex);
  g_lines.emplace_back(line);
}

}  // namespace

Collected& Received() {
  static Collected collected;
  return collected;
}

int CollectMessages(int communicator) {
  return AssociateHandler(communicator, "collector", &CollectMessage);
}

int CollectReports(int communicator) {
  return AssociateDisconnectHandler(communicator, "collector", &CollectReport);
}

bool Await(std::size_t messages, std::size_t reports) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Received().messages.size() < messages || Received().reports.size() < reports) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || BBSysLoopWait(&Received().arrivals, static_cast<int>(left)) != KELBUS_OK)
      return false;
  }
  return true;
}

int Send(int communicator, const std::string& target, const std::string& type,
         const std::string& bytes) {
  g_sendType = &type;
  g_sendBytes = &bytes;
  return SendRequest(communicator, target.c_str(), &SendStream, &SendSize, &SendType);
}

void ExpectReportOf(const Report& report, int pid, const std::string& app) {
  EXPECT_EQ(report.pid, pid);
  EXPECT_EQ(report.app, app);
  EXPECT_EQ(report.host, HostName());
  EXPECT_EQ(report.user, UserName());
}

Member::Member(const char* app, int flag) : m_result(RegisterCommunicator("test", &m_id)) {
  if (m_result == KELBUS_OK && app != nullptr)
    m_result = DeclareApplicationId(m_id, app, flag);
}

Member::~Member() {
  if (m_id != 0)
    CloseCommunicator(m_id);
}

DiagnosticLines::DiagnosticLines() {
  KelBusSetDiagnosticSink(&CollectLine);
}

DiagnosticLines::~DiagnosticLines() {
  KelBusSetDiagnosticSink(nullptr);
  std::lock_guard lock(g_linesMutex);
  g_lines.clear();
}

std::vector<std::string> DiagnosticLines::Lines() const {
  std::lock_guard lock(g_linesMutex);
  return g_lines;
}

}  // namespace bustest
