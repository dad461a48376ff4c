// TextMessage: a raw run of bytes (KelMsgStringType), kelmsg.Text in Python.
#ifndef KELMSG_PYTHON_TEXTMESSAGE_H_
#define KELMSG_PYTHON_TEXTMESSAGE_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include "LibraryText.h"

struct TextMessage {
  using Library = KelMsgStringType;

  std::string data;

  bool operator==(const TextMessage&) const = default;

  static TextMessage From(const KelMsgStringType& message) {
    return {std::string(message.Data() != nullptr ? message.Data() : "",
                        static_cast<std::size_t>(message.Size()))};
  }
  // Lends a library message holding the bytes to `use`.
  template <class Use>
  void Lend(Use&& use) const {
    KelMsgStringType message;
    message.SetData(data.data(), LibraryText::Size(data.size(), "the text"));
    use(message);
  }
};

#endif  // KELMSG_PYTHON_TEXTMESSAGE_H_
