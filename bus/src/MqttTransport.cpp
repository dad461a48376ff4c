// The bus over an MQTT 5 broker (see KelBus.h for the mapping).
//
// A communicator starts on a link under a client identifier of its own.
// Claiming an application ends the session its former holder left on the
// broker, opens a second link under the application's client identifier,
// with the departure record as will and the presence record as birth
// message, and retires the first link once everything sent on it has reached
// the broker, so that order holds across the switch.  Both links keep their
// sessions across broken connections.
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

#include "BusCredentials.h"
#include "BusSettings.h"
#include "BusTopics.h"
#include "CreditLedger.h"
#include "DepartureHold.h"
#include "Diagnostics.h"
#include "LastError.h"
#include "MqttLink.h"
#include "PresenceReader.h"
#include "ProcessRecord.h"
#include "SequenceTracker.h"
#include "Transport.h"

namespace kelbus {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kConnectLimit{KELBUS_CONNECT_SECONDS};
// A reconnecting holder's look at who holds its name.
constexpr std::chrono::seconds kGuardLimit{2};
// The same departure record arriving again this soon is the same event.
constexpr std::chrono::seconds kRepeatedReportWindow{2};
// How long a departure waits for its holder to come back under the same
// claim: a broker stopped cleanly publishes every will, and its holders
// return with it, each after a reconnect delay of up to 4 s.
constexpr std::chrono::seconds kDepartureConfirmation{6};
// What a message costs in a credit window beyond its bytes and type.
constexpr std::size_t kMessageOverhead = 64;
// Senders whose sequence numbers a holder remembers.
constexpr std::size_t kRememberedSenders = 4096;
// How long a holder waits for a sender to fill a gap, by sending again what
// it kept, before it takes the messages for lost: longer than a sender takes
// to be back after the broker it was connected to restarted.
constexpr std::chrono::seconds kGapPatience{20};
// How often a holder tells one sender again what it dispatched, or asks it
// again for what is missing.
constexpr std::chrono::milliseconds kReminderInterval{500};
// A report on a sender's credit topic: the holder's claim and a sequence
// number, 8 bytes each, little-endian; a report that asks for the messages
// after that number carries one more byte.
constexpr std::size_t kReportFieldBytes = 8;
constexpr char kSendAgainMark = 1;

std::string HolderReport(std::uint64_t claim, std::uint64_t sequence, bool sendAgain) {
  std::string report;
  for (const std::uint64_t value : {claim, sequence}) {
    for (std::size_t i = 0; i < kReportFieldBytes; ++i)
      report += static_cast<char>((value >> (8 * i)) & 0xFF);
  }
  if (sendAgain)
    report += kSendAgainMark;
  return report;
}

std::string Holder(const ProcessRecord& record) {
  return "process " + std::to_string(record.pid) + " of user " + record.user + " on host " +
         record.host;
}

void ReportTakenOver(const std::string& app, const ProcessRecord& taker) {
  Diagnose("KelBus: application '" + app + "' was taken over by " + Holder(taker) +
           "; this process gives the name up");
}

class MqttTransport final : public Transport, public MqttLink::Listener {
 public:
  MqttTransport(const BusAddress& address, const Inbox& inbox);
  ~MqttTransport() override;

  // Opens the communicator's first link; `label` goes into its client
  // identifier.
  KelBusResult Connect(const std::string& label);

  KelBusResult Claim(const std::string& app, bool takeOver) override;
  KelBusResult Send(std::string_view target, const char* type, const void* bytes,
                    int size) override;
  KelBusResult Present(const std::string& app, Clock::time_point deadline, bool* present) override;
  KelBusResult WatchDepartures(bool on) override;
  bool NameLost() const override;
  void Close() override;
  void AbandonAfterFork() override;

 private:
  // MqttLink::Listener, on the links' threads.
  void OnMessage(const mosquitto_message& message, const mosquitto_property* properties) override;
  void OnStateChanged() override;
  void OnRestored() override;

  // Ends the session that the name's former holder left on the broker, so
  // that nothing queued for it reaches this holder, and publishes
  // `presence` before a `displaced` holder could reconnect.  The broker
  // publishes no will for a session that a new connection ends, so the
  // displaced holder's departure is published here.
  KelBusResult EndFormerSession(const ProcessRecord& presence,
                                const std::optional<ProcessRecord>& displaced,
                                Clock::time_point deadline);
  std::unique_ptr<MqttLink> NewHolderLink(const ProcessRecord& presence);
  // The reconnect guard of the holder's link.
  MqttLink::Verdict CheckNameStillOurs(const std::string& app, std::uint64_t claim) const;
  // Whether a presence record that came on a link says that another holder
  // took the held application over.
  bool TakenOverBy(const ProcessRecord& presence, bool retained) const;
  // The type as content type and the sender's sequence number.
  static KelBusResult LabelMessage(const char* type, const std::string& sequenceLabel,
                                   Properties* properties);
  // A message for the held application: dropped when delivered before,
  // reported when messages before it never came.
  void Receive(const mosquitto_message& message, const mosquitto_property* properties);
  // A departure record that DepartureHold let through.
  void Departed(const ProcessRecord& departure, bool report);
  void Report(const ProcessRecord& departure);
  // The presence record of `app` comes in from now on; waits for the
  // retained one while the connection is up.
  void LearnPresence(std::string_view app);
  void Consumed(const ReceivedMessage& message) override;
  // Tells `sender` (holding `senderApp`) that this holder dispatched its
  // messages up to `sequence`, or with `sendAgain` asks for those after it.
  void ReportTo(const std::optional<std::string>& senderApp, std::uint64_t sender,
                std::uint64_t sequence, bool sendAgain);
  // A report from a holder (see HolderReport).
  void TakeCredit(const void* payload, std::size_t size);
  // Publishes a kept message again, as it first went.
  void SendAgain(const CreditLedger::Kept& kept);
  // The prober's thread (see CreditLedger), started by the first send.
  void ProbeSilentHolders(const std::stop_token& stop);
  // Whether a blocked send should stop waiting.
  bool SendingStops() const;

  const BusAddress m_address;
  const BusTopics m_topics;
  const Inbox m_inbox;
  const ProcessRecord m_process;
  const BusSettings m_settings;
  std::atomic<bool> m_watching{false};

  // Serialises the operations that use the link (claim, send, watch, close).
  std::mutex m_operationMutex;
  std::atomic<bool> m_claimed{false};
  bool m_closed = false;
  // The topic of every application sent to, and the last sequence number.
  const std::uint64_t m_senderId = RandomClaim();
  CreditLedger m_targets{KELBUS_RECEIVE_WINDOW_BYTES};
  // Kept from send to send, so that sending allocates no text.
  std::string m_lastTarget;
  std::string m_targetTopic;  // of m_lastTarget
  std::string m_label;
  std::atomic<bool> m_closing{false};
  std::string m_app;          // set before the holder link opens
  std::uint64_t m_claim = 0;  // likewise

  // What the holder received and has yet to report dispatched, per sender.
  struct Consumption {
    std::size_t queued = 0;      // messages in the dispatch queue
    std::size_t uncredited = 0;  // bytes dispatched since the last report
    // Messages were lost since the last report, or the sender sent again
    // what it had had reported (the report may have been lost).
    bool reportAtOnce = false;
  };
  std::mutex m_arrivalsMutex;
  SequenceTracker m_arrivals{kRememberedSenders, kGapPatience, kReminderInterval};
  std::unordered_map<std::uint64_t, Consumption> m_consumption;

  // Guards the pointer, which a claim replaces, for NameLost.
  mutable std::mutex m_linkMutex;
  std::unique_ptr<MqttLink> m_link;

  // A departure may arrive on both links while a claim switches them.
  std::mutex m_reportsMutex;
  std::array<std::pair<std::uint64_t, Clock::time_point>, 16> m_recentReports{};
  std::size_t m_nextReport = 0;

  // Declared last, as it reports through the members above.  A departure
  // delay of 0 asks to hear of every departure at once.
  DepartureHold m_departures{
      std::min(kDepartureConfirmation, m_settings.departureDelay),
      [this](const ProcessRecord& departure, bool report) { Departed(departure, report); }};
  // Last of all, as it sends through the members above.
  std::jthread m_prober;
};

MqttTransport::MqttTransport(const BusAddress& address, const Inbox& inbox)
    : m_address(address),
      m_topics(address.nameSpace, HolderSecret(address)),
      m_inbox(inbox),
      m_process(ThisProcess()),
      m_settings(BusSettingsFromEnvironment()) {}

MqttTransport::~MqttTransport() {
  Close();
}

KelBusResult MqttTransport::Connect(const std::string& label) {
  auto link = std::make_unique<MqttLink>(
      m_address,
      m_topics.CommunicatorClientId(label, m_process.host, m_process.pid, m_inbox.Communicator(),
                                    SenderTag(m_senderId)),
      *this);
  link->SetLastingSession(m_settings.sessionExpiry);
  link->SetKeepalive(m_settings.keepalive);
  link->Subscribe(m_topics.CreditTopic({}, SenderTag(m_senderId)), 0);
  const KelBusResult result = link->Open(Clock::now() + kConnectLimit);
  std::lock_guard lock(m_linkMutex);
  m_link = std::move(link);
  return result;
}

std::unique_ptr<MqttLink> MqttTransport::NewHolderLink(const ProcessRecord& presence) {
  ProcessRecord departure = presence;
  departure.kind = ProcessRecord::Kind::kDeparted;
  auto link = std::make_unique<MqttLink>(m_address, m_topics.HolderClientId(presence.app), *this);
  link->SetLastingSession(m_settings.sessionExpiry);
  link->SetKeepalive(m_settings.keepalive);
  link->SetWill(m_topics.PresenceTopic(presence.app), departure.Encode(), m_settings.departureDelay,
                m_settings.departureExpiry);
  link->SetBirth(m_topics.PresenceTopic(presence.app), presence.Encode());
  link->SetReconnectGuard([this, app = presence.app, claim = presence.claim] {
    return CheckNameStillOurs(app, claim);
  });
  link->Subscribe(m_topics.MessageFilter(presence.app), 0);
  // A holder under other credentials connects under another client
  // identifier, so the broker leaves this link to its taker: the taker's
  // presence record tells it (see TakenOverBy).  Without this link's own
  // records, which a closing link would otherwise still be sent back, and
  // without the retained one; a target's subscription to the same topic,
  // made after this one, overrides both.
  link->Subscribe(m_topics.PresenceTopic(presence.app),
                  MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_SEND_RETAIN_NEVER);
  // Credits for what went out before the claim come on the first topic.
  link->Subscribe(m_topics.CreditTopic({}, SenderTag(m_senderId)), 0);
  link->Subscribe(m_topics.CreditTopic(presence.app, SenderTag(m_senderId)), 0);
  for (const std::string& target : m_targets.Applications())
    link->Subscribe(m_topics.PresenceTopic(target), MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
  if (m_watching)
    link->Subscribe(m_topics.PresenceFilter(), MQTT_SUB_OPT_SEND_RETAIN_NEVER);
  return link;
}

KelBusResult MqttTransport::Claim(const std::string& app, bool takeOver) {
  std::lock_guard operation(m_operationMutex);
  const auto deadline = Clock::now() + kConnectLimit;
  PresenceReading reading = ReadPresence(m_address, m_topics, app, deadline);
  if (reading.result == KELBUS_ERR_REFUSED) {
    return Fail(reading.result, "the broker's access rules do not let user '" + m_address.user +
                                    "' hold application '" + app + "' (" + LastErrorText() + ")");
  }
  if (reading.result != KELBUS_OK)
    return reading.result;
  if (reading.record && reading.record->kind != ProcessRecord::Kind::kPresent)
    reading.record.reset();
  if (reading.record && !takeOver) {
    return Fail(KELBUS_ERR_NAME_HELD,
                "application '" + app + "' is held by " + Holder(*reading.record));
  }
  ProcessRecord presence = m_process;
  presence.app = app;
  m_app = app;
  presence.claim = RandomClaim();
  m_claim = presence.claim;
  KelBusResult result = EndFormerSession(presence, reading.record, deadline);
  if (result != KELBUS_OK)
    return result;
  auto holder = NewHolderLink(presence);
  result = holder->Open(deadline);
  if (result == KELBUS_OK)
    result = holder->Settle(deadline);
  if (result != KELBUS_OK) {
    holder->Close(true);
    return result;
  }
  // What the first link still has in flight reaches the broker before the
  // holder link sends anything, and what the broker sent it before accepting
  // the holder link (the departure of a holder taken over, above all) is
  // read before it goes.
  m_link->Drain(deadline);
  std::unique_ptr<MqttLink> retired;
  {
    std::lock_guard lock(m_linkMutex);
    retired = std::exchange(m_link, std::move(holder));
  }
  m_claimed = true;
  m_targetTopic.clear();  // messages go out under the application from now on
  retired->Close(false);
  return KELBUS_OK;
}

KelBusResult MqttTransport::EndFormerSession(const ProcessRecord& presence,
                                             const std::optional<ProcessRecord>& displaced,
                                             Clock::time_point deadline) {
  const std::string topic = m_topics.PresenceTopic(presence.app);
  MqttLink link(m_address, m_topics.HolderClientId(presence.app), *this);
  link.SetBirth(topic, presence.Encode());
  KelBusResult result = link.Open(deadline);
  if (result == KELBUS_OK && displaced) {
    ProcessRecord departure = *displaced;
    departure.kind = ProcessRecord::Kind::kDeparted;
    const std::string payload = departure.Encode();
    result =
        link.Publish(topic, payload.data(), static_cast<int>(payload.size()), nullptr, deadline);
  }
  if (result == KELBUS_OK)
    result = link.Settle(deadline);
  link.Close(false);
  return result;
}

MqttLink::Verdict MqttTransport::CheckNameStillOurs(const std::string& app,
                                                    std::uint64_t claim) const {
  const PresenceReading reading =
      ReadPresence(m_address, m_topics, app, Clock::now() + kGuardLimit);
  if (reading.result != KELBUS_OK)
    return MqttLink::Verdict::kRetryLater;
  if (!reading.record || reading.record->claim == claim)
    return MqttLink::Verdict::kReconnect;
  ReportTakenOver(app, *reading.record);
  return MqttLink::Verdict::kGiveUp;
}

// Only a user whom the broker's rules let hold the application may publish
// on its presence topic, and a record there that names another application
// is dropped as a forgery before it comes here: so only a holder that may
// hold the name can make this one give it up.  A retained record comes at a
// subscription, and is this holder's own or a departure, as the reconnect
// guard has just looked; this holder's own record, published again after a
// reconnect, carries its claim.
bool MqttTransport::TakenOverBy(const ProcessRecord& presence, bool retained) const {
  return m_claimed && !retained && presence.kind == ProcessRecord::Kind::kPresent &&
         presence.app == m_app && presence.claim != m_claim;
}

KelBusResult MqttTransport::LabelMessage(const char* type, const std::string& sequenceLabel,
                                         Properties* properties) {
  mosquitto_property* list = nullptr;
  // An empty type name travels as no content type at all: libmosquitto
  // cannot copy an empty string property.
  int added = type[0] == '\0' ? MOSQ_ERR_SUCCESS
                              : mosquitto_property_add_string(&list, MQTT_PROP_CONTENT_TYPE, type);
  if (added == MOSQ_ERR_SUCCESS) {
    added = mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, kSequenceProperty,
                                               sequenceLabel.c_str());
  }
  properties->reset(list);
  if (added != MOSQ_ERR_SUCCESS)
    return FailFromMosquitto(added, KELBUS_ERR_INVALID, "cannot label the message with its type");
  return KELBUS_OK;
}

bool MqttTransport::SendingStops() const {
  return m_closing || NameLost();
}

void MqttTransport::LearnPresence(std::string_view app) {
  ProcessRecord probe;
  probe.kind = ProcessRecord::Kind::kProbe;
  probe.app = app;
  probe.claim = RandomClaim();
  m_link->Subscribe(m_topics.PresenceTopic(app), MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
  if (m_link->CurrentState() != MqttLink::State::kUp)
    return;
  // The broker queues the retained record at the subscription, so it comes
  // before the probe, which goes to this sender's own topic: the presence
  // topic is its holder's alone.
  const auto deadline = Clock::now() + kConnectLimit;
  const std::string payload = probe.Encode();
  const std::string topic = m_topics.CreditTopic(m_claimed ? m_app : "", SenderTag(m_senderId));
  m_targets.ExpectProbe(app, probe.claim);
  if (m_link->Publish(topic, payload.data(), static_cast<int>(payload.size()), nullptr, deadline) ==
      KELBUS_OK) {
    m_targets.AwaitProbe(app, deadline, [this] {
      return SendingStops() || m_link->CurrentState() != MqttLink::State::kUp;
    });
  }
}

KelBusResult MqttTransport::Send(std::string_view target, const char* type, const void* bytes,
                                 int size) {
  std::lock_guard operation(m_operationMutex);
  const bool firstToTarget = m_targets.Add(target);
  if (firstToTarget)
    LearnPresence(target);
  // Consecutive sends mostly go to one target.
  if (target != m_lastTarget || m_targetTopic.empty()) {
    m_lastTarget.assign(target);
    m_topics.MessageTopic(target, m_claimed ? m_app : "", &m_targetTopic);
  }
  SequenceLabel(m_senderId, m_targets.NextSequence(target), &m_label);
  Properties properties;
  if (const KelBusResult result = LabelMessage(type, m_label, &properties); result != KELBUS_OK)
    return result;
  const std::size_t cost = static_cast<std::size_t>(size) + std::strlen(type) + kMessageOverhead;
  const auto deadline = Clock::now() + m_settings.sendTimeout;
  const auto gaveUp = [&](const std::string& why) {
    return Fail(KELBUS_ERR_TIMEOUT, "gave up sending to '" + std::string(target) + "' after " +
                                        std::to_string(m_settings.sendTimeout.count()) +
                                        " s: " + why);
  };
  switch (m_targets.WaitForRoom(target, cost, deadline, [this] { return SendingStops(); })) {
    case CreditLedger::Room::kGo:
      break;
    case CreditLedger::Room::kGone:
      return Fail(KELBUS_ERR_GONE, "application '" + std::string(target) + "' has left the bus");
    case CreditLedger::Room::kTimedOut:
      return gaveUp("its holder has not dispatched what came before");
    case CreditLedger::Room::kAbandoned:
      return NameLost()
                 ? Fail(KELBUS_ERR_NAME_LOST, "this communicator's application was taken over")
                 : Fail(KELBUS_ERR_BAD_ID, "the communicator was closed");
  }
  KelBusResult result = m_link->Publish(m_targetTopic, bytes, size, properties.get(), deadline);
  if (result == KELBUS_OK) {
    m_targets.Sent(target, cost, m_targetTopic, type,
                   {static_cast<const char*>(bytes), static_cast<std::size_t>(size)});
    if (!m_prober.joinable())
      m_prober = std::jthread([this](const std::stop_token& stop) { ProbeSilentHolders(stop); });
    // The broker's access rules refuse a sender as a whole, so a refusal
    // shows on the first message to a target, and is reported at once.
    if (firstToTarget && m_link->Settle(Clock::now() + kConnectLimit) == KELBUS_ERR_REFUSED)
      result = KELBUS_ERR_REFUSED;
  }
  if (result == KELBUS_ERR_TIMEOUT)
    return gaveUp(LastErrorText());
  if (result == KELBUS_ERR_REFUSED) {
    return Fail(result, "cannot send to '" + std::string(target) + "' as " +
                            (m_claimed ? "'" + m_app + "'" : "a communicator without application") +
                            ": " + LastErrorText());
  }
  return result;
}

// On a connection of its own, as a claim reads it: the communicator's link
// may be down, and its subscriptions are the holder's business.
KelBusResult MqttTransport::Present(const std::string& app, Clock::time_point deadline,
                                    bool* present) {
  const PresenceReading reading = ReadPresence(m_address, m_topics, app, deadline);
  *present = reading.record && reading.record->kind == ProcessRecord::Kind::kPresent;
  return reading.result;
}

KelBusResult MqttTransport::WatchDepartures(bool on) {
  std::lock_guard operation(m_operationMutex);
  m_watching = on;
  if (!on) {
    m_link->Unsubscribe(m_topics.PresenceFilter());
    return KELBUS_OK;
  }
  m_link->Subscribe(m_topics.PresenceFilter(), MQTT_SUB_OPT_SEND_RETAIN_NEVER);
  return m_link->Settle(Clock::now() + kConnectLimit);
}

bool MqttTransport::NameLost() const {
  std::lock_guard lock(m_linkMutex);
  return m_link->CurrentState() == MqttLink::State::kGivenUp;
}

void MqttTransport::Close() {
  m_closing = true;
  m_targets.Wake();
  m_departures.Stop();
  std::lock_guard operation(m_operationMutex);
  m_prober.request_stop();
  if (m_prober.joinable())
    m_prober.join();
  if (m_closed || !m_link)
    return;
  m_closed = true;
  // While the connection is down nothing can reach the broker.  A refusal
  // that no later send reported is told here.
  if (m_link->CurrentState() == MqttLink::State::kUp &&
      m_link->Settle(Clock::now() + kConnectLimit) == KELBUS_ERR_REFUSED) {
    Diagnose("KelBus: " + std::string(LastErrorText()));
  }
  m_link->Close(m_claimed);
}

void MqttTransport::AbandonAfterFork() {
  if (m_link)
    m_link->AbandonAfterFork();
}

void MqttTransport::OnMessage(const mosquitto_message& message,
                              const mosquitto_property* properties) {
  const std::string_view topic(message.topic);
  const auto size = static_cast<std::size_t>(message.payloadlen);
  if (m_topics.IsMessageTopic(topic)) {
    Receive(message, properties);
    return;
  }
  if (m_topics.IsCreditTopic(topic)) {
    TakeCredit(message.payload, size);
    return;
  }
  if (!m_topics.IsPresenceTopic(topic))
    return;
  const auto record = ProcessRecord::Decode(message.payload, size);
  // A record whose application is not its topic's is a forgery.
  if (!record || m_topics.PresenceTopic(record->app) != topic)
    return;
  if (TakenOverBy(*record, message.retain)) {
    ReportTakenOver(m_app, *record);
    MqttLink* holder = nullptr;
    {
      std::lock_guard lock(m_linkMutex);
      holder = m_link.get();  // the holder's link, which nothing replaces after the claim
    }
    holder->GiveUp();
    return;
  }
  switch (record->kind) {
    case ProcessRecord::Kind::kDeparted:
      // Retained records come for a target's presence subscription, and tell
      // of departures long past unless of the holder counted on: a broker
      // back from a clean stop still holds the departures it published.
      if (message.retain && !m_targets.CountsOn(record->app, record->claim)) {
        m_targets.RecordArrived(*record);
      } else {
        m_departures.Departed(*record, m_watching && !message.retain);
      }
      return;
    case ProcessRecord::Kind::kPresent:
      m_departures.Present(*record);
      break;
    case ProcessRecord::Kind::kProbe:
      break;
  }
  m_targets.RecordArrived(*record);
  // A holder that connects again publishes its record again: if the broker
  // lost its session meanwhile, it lost what was kept for it as well, and
  // the holder, having subscribed first, takes it now.
  if (!message.retain && record->kind == ProcessRecord::Kind::kPresent)
    m_targets.ResendTo(record->claim, 0,
                       [this](const CreditLedger::Kept& kept) { SendAgain(kept); });
}

void MqttTransport::TakeCredit(const void* payload, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(payload);
  const bool credit = size == 2 * kReportFieldBytes;
  const bool sendAgain = size == 2 * kReportFieldBytes + 1 && bytes[size - 1] == kSendAgainMark;
  if (!credit && !sendAgain) {
    // Not a report: this sender's own presence probe.
    if (const auto probe = ProcessRecord::Decode(payload, size);
        probe && probe->kind == ProcessRecord::Kind::kProbe) {
      m_targets.RecordArrived(*probe);
    }
    return;
  }
  const auto field = [bytes](std::size_t at) {
    std::uint64_t value = 0;
    for (std::size_t i = kReportFieldBytes; i > 0; --i)
      value = (value << 8) | bytes[at + i - 1];
    return value;
  };
  const std::uint64_t claim = field(0);
  const std::uint64_t sequence = field(kReportFieldBytes);
  if (credit) {
    m_targets.Credited(claim, sequence);
    return;
  }
  m_targets.ResendTo(claim, sequence, [this](const CreditLedger::Kept& kept) { SendAgain(kept); });
}

void MqttTransport::SendAgain(const CreditLedger::Kept& kept) {
  std::string label;
  SequenceLabel(m_senderId, kept.sequence, &label);
  Properties properties;
  if (LabelMessage(kept.type.c_str(), label, &properties) != KELBUS_OK)
    return;  // labelled once already, so only memory can be short
  std::lock_guard lock(m_linkMutex);
  m_link->PublishControl(kept.topic, kept.bytes, properties.get());
}

void MqttTransport::ProbeSilentHolders(const std::stop_token& stop) {
  std::mutex mutex;
  std::condition_variable_any stopped;
  std::unique_lock lock(mutex);
  while (!stop.stop_requested()) {
    const auto next = m_targets.ProbeSilentHolders(
        Clock::now(), [this](const CreditLedger::Kept& kept) { SendAgain(kept); });
    stopped.wait_until(lock, stop, next, [] { return false; });
  }
}

void MqttTransport::Consumed(const ReceivedMessage& message) {
  const std::uint64_t sender = message.origin.sender;
  if (sender == 0)
    return;
  {
    std::lock_guard lock(m_arrivalsMutex);
    Consumption& consumption = m_consumption[sender];
    --consumption.queued;
    consumption.uncredited += message.bytes.size() + message.type.size() + kMessageOverhead;
    // Reported a step at a time (see CreditLedger); at once after a gap, as
    // only a report takes the lost messages off the sender's window, and
    // after a message sent again, as the report before may have been lost;
    // and when too many senders are remembered, so as to forget this one.
    const bool crowded = consumption.queued == 0 && m_consumption.size() > kRememberedSenders;
    if (consumption.uncredited < m_targets.ReportStep() && !consumption.reportAtOnce && !crowded)
      return;
    if (consumption.queued == 0) {
      m_consumption.erase(sender);
    } else {
      consumption = {.queued = consumption.queued};
    }
  }
  ReportTo(message.sender, sender, message.origin.sequence, false);
}

void MqttTransport::ReportTo(const std::optional<std::string>& senderApp, std::uint64_t sender,
                             std::uint64_t sequence, bool sendAgain) {
  const std::string report = HolderReport(m_claim, sequence, sendAgain);
  std::lock_guard lock(m_linkMutex);
  m_link->PublishControl(m_topics.CreditTopic(senderApp.value_or(""), SenderTag(sender)), report);
}

void MqttTransport::Receive(const mosquitto_message& message,
                            const mosquitto_property* properties) {
  std::optional<std::string> from;
  std::string application;
  switch (m_topics.SenderOf(message.topic, m_app, &application)) {
    case BusTopics::SenderLevel::kApplication:
      from = std::move(application);
      break;
    case BusTopics::SenderLevel::kNone:
      break;
    case BusTopics::SenderLevel::kMalformed:
      Diagnose("KelBus: dropped a message to application '" + m_app +
               "' whose topic names no sender");
      return;
  }
  std::optional<std::pair<std::uint64_t, std::uint64_t>> numbered;  // sender, sequence
  char* name = nullptr;
  char* value = nullptr;
  for (const mosquitto_property* property = mosquitto_property_read_string_pair(
           properties, MQTT_PROP_USER_PROPERTY, &name, &value, false);
       property != nullptr && !numbered;
       property = mosquitto_property_read_string_pair(property, MQTT_PROP_USER_PROPERTY, &name,
                                                      &value, true)) {
    std::uint64_t sender = 0, sequence = 0;
    if (std::strcmp(name, kSequenceProperty) == 0) {
      if (!ParseSequenceLabel(value, &sender, &sequence)) {
        Diagnose("KelBus: dropped a message to application '" + m_app + "' whose sequence label '" +
                 value + "' is malformed");
        std::free(name);
        std::free(value);
        return;
      }
      numbered.emplace(sender, sequence);
    }
    std::free(name);
    std::free(value);
  }
  if (numbered) {
    std::unique_lock lock(m_arrivalsMutex);
    const SequenceTracker::Verdict verdict =
        m_arrivals.Arrived(numbered->first, numbered->second, Clock::now());
    if (verdict.kind != SequenceTracker::Kind::kNext) {
      // A repeat while messages before it wait to be dispatched: the report
      // after them goes at once.  Otherwise the sender hears, now and then,
      // what was dispatched, or is asked for what follows.
      const auto waiting = m_consumption.find(numbered->first);
      if (verdict.kind == SequenceTracker::Kind::kRepeat && waiting != m_consumption.end() &&
          waiting->second.queued > 0) {
        waiting->second.reportAtOnce = true;
        return;
      }
      lock.unlock();
      if (verdict.remind) {
        ReportTo(from, numbered->first, verdict.last,
                 verdict.kind == SequenceTracker::Kind::kAhead);
      }
      return;
    }
    Consumption& consumption = m_consumption[numbered->first];
    ++consumption.queued;
    consumption.reportAtOnce = consumption.reportAtOnce || verdict.lost > 0;
    lock.unlock();
    if (verdict.lost > 0) {
      Diagnose("KelBus: " + std::to_string(verdict.lost) + " message(s) from sender " +
               SenderTag(numbered->first) + " to application '" + m_app + "' were lost");
    }
  }
  char* type = nullptr;
  mosquitto_property_read_string(properties, MQTT_PROP_CONTENT_TYPE, &type, false);
  const Origin origin = numbered ? Origin{numbered->first, numbered->second} : Origin();
  m_inbox.Message(type != nullptr ? type : "", message.payload,
                  static_cast<std::size_t>(message.payloadlen), origin, std::move(from));
  std::free(type);
}

void MqttTransport::Departed(const ProcessRecord& departure, bool report) {
  m_targets.RecordArrived(departure);
  if (report)
    Report(departure);
}

void MqttTransport::Report(const ProcessRecord& departure) {
  const auto now = Clock::now();
  {
    std::lock_guard lock(m_reportsMutex);
    for (const auto& [claim, when] : m_recentReports) {
      if (claim == departure.claim && now - when < kRepeatedReportWindow)
        return;
    }
    m_recentReports[m_nextReport++ % m_recentReports.size()] = {departure.claim, now};
  }
  m_inbox.Departed({departure.pid, departure.app, departure.host, departure.user});
}

// What the holders had not reported dispatched may have died with the
// broker, and their reports with it.  Sent again, it reaches the holders
// whose sessions live; a holder whose session died too publishes its
// presence record again once it has subscribed (see OnMessage).  Holders
// drop what they had already, and report again.
void MqttTransport::OnRestored() {
  m_targets.ResendAll([this](const CreditLedger::Kept& kept) { SendAgain(kept); });
}

void MqttTransport::OnStateChanged() {
  std::optional<bool> up;  // unknown while the first link opens
  {
    std::lock_guard lock(m_linkMutex);
    if (m_link)
      up = m_link->CurrentState() == MqttLink::State::kUp;
  }
  if (up)
    m_departures.ConnectionUp(*up);
  m_targets.Wake();
  m_inbox.Wake();
}

}  // namespace

std::unique_ptr<Transport> OpenMqttTransport(const BusAddress& address, const std::string& label,
                                             const Inbox& inbox, KelBusResult* result) {
  auto transport = std::make_unique<MqttTransport>(address, inbox);
  *result = transport->Connect(label);
  if (*result != KELBUS_OK)
    return nullptr;
  return transport;
}

}  // namespace kelbus
