// The MQTT names of one bus: topics and client identifiers, all under the
// bus's namespace.
//
//   <ns>/a/<app>/<from>  messages to the application <app> from a
//                        communicator that holds the application <from>
//   <ns>/a/<app>         messages to <app> from anybody else
//   <ns>/p/<app>         presence and departure records of its holder
//   <ns>/c/<from>/<tag>  credits and presence probes for the sender whose
//                        identifier is <tag>, holding <from>
//   <ns>/c/<tag>         the same for a sender that holds no application
//
// <app> and <from> are application names percent-encoded into one topic
// level.  A broker's access rules grant the levels per identity.  The client
// identifier of an application's holder is <ns>/a/<app>, so the broker
// admits one live holder per name.  On a bus with credentials it is
// <ns>/a/<app>/<tag>, the tag a keyed hash of the rest under the secrets
// that the holder presents (password, client key): the rules cannot tie a
// client identifier to a user, so only the name's holders with those
// secrets can work out the identifier and displace the holder.
#ifndef KELBUS_SRC_BUSTOPICS_H_
#define KELBUS_SRC_BUSTOPICS_H_

#include <optional>
#include <string>
#include <string_view>

namespace kelbus {

// Every byte outside A-Z a-z 0-9 - . _ becomes %XX (upper-case hex), so the
// result holds no topic separator or wildcard and is plain ASCII.
void AppendEscapedLevel(std::string_view name, std::string* out);
// The name whose escaped form is `level`, or nothing when `level` is not
// exactly what AppendEscapedLevel makes of some name.
std::optional<std::string> UnescapeLevel(std::string_view level);

class BusTopics {
 public:
  // `holderSecret` (empty on a bus without credentials) keys the client
  // identifiers of holders.
  explicit BusTopics(std::string nameSpace, std::string holderSecret = {});

  // The topic of messages to `app` from the holder of `from` (empty: from a
  // communicator that holds none) into `*out`, reusing its storage.
  void MessageTopic(std::string_view app, std::string_view from, std::string* out) const;
  // Matches every message to `app`.
  std::string MessageFilter(std::string_view app) const;
  std::string PresenceTopic(std::string_view app) const;
  // Matches the presence topics of every application.
  std::string PresenceFilter() const;
  // `from` as for MessageTopic.
  std::string CreditTopic(std::string_view from, std::string_view senderTag) const;
  std::string HolderClientId(std::string_view app) const;
  // The client identifier of a communicator that holds no application;
  // `instance` sets it apart from any other, even of a recycled process id.
  std::string CommunicatorClientId(std::string_view label, std::string_view host, int pid,
                                   int communicator, std::string_view instance) const;

  bool IsMessageTopic(std::string_view topic) const;
  // What a message topic of `app` says of its sender: the application the
  // broker let publish it, or none for the bare topic.
  enum class SenderLevel { kNone, kApplication, kMalformed };
  SenderLevel SenderOf(std::string_view topic, std::string_view app, std::string* from) const;
  bool IsPresenceTopic(std::string_view topic) const;
  bool IsCreditTopic(std::string_view topic) const;

 private:
  std::string m_messagePrefix;
  std::string m_presencePrefix;
  std::string m_communicatorPrefix;
  std::string m_holderSecret;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSTOPICS_H_
