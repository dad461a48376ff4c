// NoteMessage: a small message for handler tests.  Its payload is the bytes
// of a text; it prints the base line and then "  note: <text>\n".  A test may
// watch each Print as it starts, to see what the stream held before the
// message wrote anything.
#ifndef KELMSG_TESTS_KELMSGHANDLERS_NOTEMESSAGE_H_
#define KELMSG_TESTS_KELMSGHANDLERS_NOTEMESSAGE_H_

#include <cstdio>
#include <functional>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

class NoteMessage : public KelMsgBBMessage {
 public:
  static constexpr char kType[] = "NoteMessage";

  explicit NoteMessage(std::string text = {});

  int RequiredBufferSize() const override;
  void Stream(void* buffer, int size) const override;
  void Unstream(const void* buffer, int size) override;
  // Carries the text over.
  KelMsgBBMessage* Clone() const override;
  void Print(FILE* stream, const char* prefix) const override;

  const std::string& Text() const { return m_text; }
  int Prints() const { return m_prints; }
  void WatchPrint(std::function<void(FILE*)> watcher) { m_printWatcher = std::move(watcher); }

 private:
  std::string m_text;
  mutable int m_prints = 0;
  std::function<void(FILE*)> m_printWatcher;
};

#endif  // KELMSG_TESTS_KELMSGHANDLERS_NOTEMESSAGE_H_
