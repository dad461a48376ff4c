// Defines a message class on the installed headers, registers it and
// dispatches one framed buffer; exits 0 when the handler saw the payload.
#include <cstring>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgModules.h>

namespace {

std::string g_seen;

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
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    g_seen = std::string(id) + ":" + static_cast<const Note&>(msg).Text();
  }
};

}  // namespace

int main() {
  KelMsgModules_initializeC();
  KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new Note, new NoteHandler);
  KelMsgBBCallbackManager::SetMessageID("monitor");

  const Note outgoing("hello");
  KelMsgBBCallbackManager::AppendMessageToSend(&outgoing);
  std::vector<char> buffer(
      static_cast<std::size_t>(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage()));
  KelMsgBBCallbackManager::StreamPendingMessage(buffer.data(), static_cast<int>(buffer.size()));
  KelMsgBBCallbackManager::HandleMessage("Note", buffer.data(), static_cast<int>(buffer.size()));

  KelMsgModules_finalizeC();
  return g_seen == "monitor:hello" ? 0 : 1;
}
