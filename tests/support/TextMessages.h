// Raw string messages carrying text, as the tests' controllers and peer
// processes use them to steer one another.  Header-only, so peer programs
// need no test library.
#ifndef KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_
#define KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_

#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

// Sends `text` to `target` as a raw string message; the bus's result.
inline int SendText(int communicator, const std::string& target, const std::string& text) {
  KelMsgStringType message;
  message.SetData(text.data(), static_cast<int>(text.size()));
  return KelMsgBBAPI::SendRequest(communicator, target.c_str(), message);
}

// The text of a received raw string message, split at each '\n'.
inline std::vector<std::string> TextLines(const KelMsgBBMessage& msg) {
  const auto& text = static_cast<const KelMsgStringType&>(msg);
  std::istringstream lines(std::string(text.Data(), static_cast<std::size_t>(text.Size())));
  std::vector<std::string> fields;
  for (std::string field; std::getline(lines, field);)
    fields.push_back(field);
  return fields;
}

#endif  // KELMSG_TESTS_SUPPORT_TEXTMESSAGES_H_
