// Raw string messages carrying text, as the tests' controllers and peer
// processes use them to steer one another.  Header-only, so peer programs
// need no test library.
#ifndef KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_
#define KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

// Sends `text` to `target` as a raw string message; the bus's result.
inline int SendText(const KelMsgBBApplication& from, const std::string& target,
                    const std::string& text) {
  KelMsgStringType message;
  message.SetData(text.data(), static_cast<int>(text.size()));
  return from.Send(target.c_str(), message);
}

// The text of a received raw string message.
inline std::string TextOf(const KelMsgBBMessage& msg) {
  const auto& text = static_cast<const KelMsgStringType&>(msg);
  return {text.Data(), static_cast<std::size_t>(text.Size())};
}

#endif  // KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_
