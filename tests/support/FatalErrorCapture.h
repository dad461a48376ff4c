// Collects the reports of failed checks for the lifetime of the object,
// instead of letting them reach standard error.
#ifndef KELMSG_TESTS_SUPPORT_FATALERRORCAPTURE_H_
#define KELMSG_TESTS_SUPPORT_FATALERRORCAPTURE_H_

#include <string>
#include <vector>

#include <KelMsgFeaMessaging/DovFatalError.h>

struct FatalErrorReport {
  std::string message;
  std::string path;
  int line;
};

class FatalErrorCapture {
 public:
  FatalErrorCapture();
  ~FatalErrorCapture();
  FatalErrorCapture(const FatalErrorCapture&) = delete;
  FatalErrorCapture& operator=(const FatalErrorCapture&) = delete;

  const std::vector<FatalErrorReport>& Reports() const;
  // The messages alone, in order.
  std::vector<std::string> Messages() const;

 private:
  DovFatalErrorSink m_previous;
};

#endif  // KELMSG_TESTS_SUPPORT_FATALERRORCAPTURE_H_
