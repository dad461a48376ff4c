// Defines a message class on the installed headers, and has one application
// send it to another over the bus that KELBUS_URL names; exits 0 when the
// receiver's handler saw the payload and who sent it.
#include <cstdio>
#include <cstring>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

namespace {

constexpr char kSender[] = "consumer-monitor";
constexpr char kReceiver[] = "consumer-solver";

class Note : public KelMsgBBMessage {
 public:
  explicit Note(std::string text = {}) : KelMsgBBMessage("Note"), m_text(std::move(text)) {}
  int RequiredBufferSize() const override { return static_cast<int>(m_text.size()); }
  void Stream(void* buffer, int) const override {
    std::memcpy(buffer, m_text.data(), m_text.size());
  }
  void Unstream(const void* buffer, int size) override {
    m_text.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(size));
  }
  KelMsgBBMessage* Clone() const override { return new Note; }
  const std::string& Text() const { return m_text; }

 private:
  std::string m_text;
};

class NoteHandler : public KelMsgBBMessageHandler {
 public:
  NoteHandler(std::string& seen, int& done) : m_seen(seen), m_done(done) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_seen = std::string(id) + ":" + static_cast<const Note&>(msg).Text();
    m_done = 0;
  }

 private:
  std::string& m_seen;
  int& m_done;
};

int Fail(const char* what, const char* why) {
  std::fprintf(stderr, "consumer: %s: %s\n", what, why);
  return 1;
}

}  // namespace

int main() {
  const KelMsgBBApplication receiver(kReceiver);
  if (!receiver.Joined())
    return Fail("cannot join the bus", KelBusLastError());
  const KelMsgBBApplication sender(kSender);  // last joined: the messages' sender
  if (!sender.Joined())
    return Fail("cannot join the bus", KelBusLastError());

  std::string seen;
  int done = -1;
  KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new Note, new NoteHandler(seen, done));
  if (sender.Send(kReceiver, Note("hello")) != KELBUS_OK)
    return Fail("cannot send", KelBusLastError());
  receiver.Wait(done, 10000);

  const std::string expected = std::string(kSender) + ":hello";
  if (seen != expected)
    return Fail("the receiver did not see the message", seen.c_str());
  return 0;
}
