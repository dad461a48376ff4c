#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kConfirmExit[] = "Exit Handler -- confirm exit\n";

// The bus reports every field; a missing one must still not crash the trace.
const char* Printable(const char* text) {
  return text == nullptr ? "(null)" : text;
}

}  // namespace

KelMsgSimpleDisconnectHandler::KelMsgSimpleDisconnectHandler() = default;

KelMsgSimpleDisconnectHandler::~KelMsgSimpleDisconnectHandler() = default;

void KelMsgSimpleDisconnectHandler::SetDisconnectBehavior(e_behavior behavior) {
  m_behavior = behavior;
}

void KelMsgSimpleDisconnectHandler::SetWatchApplication(const char* app, int pid,
                                                        const char* host) {
  m_watchApp.BuildFromUTF8(app);
  m_watchPid = pid;
  if (host == nullptr)
    return;
  m_watchHost.BuildFromUTF8(host);
  m_watchHost.ASCIIToUpper();
}

int& KelMsgSimpleDisconnectHandler::EndingCondition() {
  return m_endingCondition;
}

void KelMsgSimpleDisconnectHandler::DetectDisconnection(int pid, const char* app, const char* host,
                                                        const char* user) const {
  std::fprintf(stderr, "in disconnection handler, process %d -- app -- %s -- host %s -- user %s\n",
               pid, Printable(app), Printable(host), Printable(user));
  std::fflush(stderr);
  if (!IsWatchedApplication(pid, app, host))
    return;
  std::fwrite(kConfirmExit, 1, sizeof kConfirmExit - 1, stderr);
  if (m_behavior != e_exitProcess) {
    m_endingCondition = 0;
    return;
  }
  std::fflush(stderr);
  std::exit(0);
}

bool KelMsgSimpleDisconnectHandler::IsWatchedApplication(int pid, const char* app,
                                                         const char* host) const {
  const KelString reportedApp(app);
  if (std::strcmp(m_watchApp.GetUTF8(), reportedApp.GetUTF8()) == 0)
    return true;
  if (m_watchPid != pid)
    return false;
  KelString reportedHost(host);
  reportedHost.ASCIIToUpper();
  return std::strcmp(reportedHost.GetUTF8(), m_watchHost.GetUTF8()) == 0;
}
