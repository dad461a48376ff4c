// The MQTT names of one bus: topics and client identifiers, all under the
// bus's namespace.
//
//   <ns>/a/<app>   messages to the application <app>
//   <ns>/p/<app>   presence and departure records of its holder
//   <ns>/c/<tag>   credits for the sender whose identifier is <tag>
//
// <app> is the application name percent-encoded into one topic level.  The
// client identifier of an application's holder is its message topic, so the
// broker admits one live holder per name.
#ifndef KELBUS_SRC_BUSTOPICS_H_
#define KELBUS_SRC_BUSTOPICS_H_

#include <string>
#include <string_view>

namespace kelbus {

// Every byte outside A-Z a-z 0-9 - . _ becomes %XX (upper-case hex), so the
// result holds no topic separator or wildcard and is plain ASCII.
void AppendEscapedLevel(std::string_view name, std::string* out);

class BusTopics {
 public:
  explicit BusTopics(std::string nameSpace);

  // Appends the topic of `app`'s messages to `*out` (cleared first), reusing
  // its storage.
  void MessageTopic(std::string_view app, std::string* out) const;
  std::string MessageTopic(std::string_view app) const;
  std::string PresenceTopic(std::string_view app) const;
  // Matches the presence topics of every application.
  std::string PresenceFilter() const;
  std::string CreditTopic(std::string_view senderTag) const;
  std::string HolderClientId(std::string_view app) const;
  // The client identifier of a communicator that holds no application;
  // `instance` sets it apart from any other, even of a recycled process id.
  std::string CommunicatorClientId(std::string_view label, std::string_view host, int pid,
                                   int communicator, std::string_view instance) const;

  bool IsMessageTopic(std::string_view topic) const;
  bool IsPresenceTopic(std::string_view topic) const;
  bool IsCreditTopic(std::string_view topic) const;

 private:
  std::string m_messagePrefix;
  std::string m_presencePrefix;
  std::string m_communicatorPrefix;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSTOPICS_H_
