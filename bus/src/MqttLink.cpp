#include "MqttLink.h"

#include <mqtt_protocol.h>
#include <poll.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Diagnostics.h"
#include "LastError.h"
#include "TlsSetup.h"

namespace kelbus {
namespace {

using std::chrono::milliseconds;

constexpr int kLoopSliceMs = 500;
constexpr milliseconds kFirstBackoff{250};
constexpr milliseconds kLongestBackoff{4000};
// How long a closing link tries to get its DISCONNECT out.
constexpr milliseconds kGoodbyeLimit{2000};
// What a message costs in the send window beyond its payload and topic.
constexpr std::size_t kMessageOverhead = 64;
constexpr int kQos = 1;

// Set on the links' network threads, which hold their link's I/O mutex
// whenever libmosquitto calls back.
thread_local bool t_onNetworkThread = false;

void InitialiseLibraryOnce() {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
}

std::string Describe(int result, int savedErrno) {
  if (result == MOSQ_ERR_TLS)
    return TakeTlsFailure();
  return result == MOSQ_ERR_ERRNO ? std::strerror(savedErrno) : mosquitto_strerror(result);
}

MqttLink& Self(void* self) {
  return *static_cast<MqttLink*>(self);
}

}  // namespace

KelBusResult FailFromMosquitto(int mosquittoResult, KelBusResult otherwise,
                               const std::string& doing) {
  const std::string why = Describe(mosquittoResult, errno);
  switch (mosquittoResult) {
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
      return Fail(KELBUS_ERR_TOO_LARGE, doing + ": larger than the broker accepts");
    case MOSQ_ERR_MALFORMED_UTF8:
      return Fail(KELBUS_ERR_INVALID, doing + ": text that is not UTF-8");
    case MOSQ_ERR_TLS:
      return Fail(KELBUS_ERR_REFUSED, doing + ": " + why);
    default:
      return Fail(otherwise, doing + ": " + why);
  }
}

Properties IntervalProperty(int identifier, std::chrono::seconds interval) {
  mosquitto_property* properties = nullptr;
  // Fails only when memory runs out, and then the broker's default applies.
  mosquitto_property_add_int32(&properties, identifier,
                               static_cast<std::uint32_t>(interval.count()));
  return Properties(properties);
}

MqttLink::MqttLink(const BusAddress& address, std::string clientId, Listener& listener)
    : m_address(address),
      m_clientId(std::move(clientId)),
      m_listener(listener),
      m_backoff(kFirstBackoff) {
  InitialiseLibraryOnce();
}

MqttLink::~MqttLink() {
  Close(false);
}

void MqttLink::SetLastingSession(std::chrono::seconds expiry) {
  m_sessionExpiry = expiry;
}

void MqttLink::SetWill(std::string topic, std::string payload, std::chrono::seconds delay,
                       std::chrono::seconds expiry) {
  m_willTopic = std::move(topic);
  m_willPayload = std::move(payload);
  m_willDelay = delay;
  m_willExpiry = expiry;
}

Properties MqttLink::WillExpiry() const {
  return m_willExpiry.count() > 0
             ? IntervalProperty(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, m_willExpiry)
             : nullptr;
}

void MqttLink::SetBirth(std::string topic, std::string payload) {
  m_birthTopic = std::move(topic);
  m_birthPayload = std::move(payload);
}

void MqttLink::SetReconnectGuard(std::function<Verdict()> guard) {
  m_guard = std::move(guard);
}

void MqttLink::SetKeepalive(std::chrono::seconds keepalive) {
  m_keepaliveSeconds = static_cast<int>(keepalive.count());
}

void MqttLink::Subscribe(std::string filter, int options) {
  std::lock_guard lock(m_mutex);
  m_subscriptions.push_back({std::move(filter), options});
  if (m_state == State::kUp)
    SubscribeLocked(m_subscriptions.back());
}

void MqttLink::Unsubscribe(const std::string& filter) {
  std::lock_guard lock(m_mutex);
  std::erase_if(m_subscriptions, [&](const Subscription& s) { return s.filter == filter; });
  if (m_state == State::kUp) {
    mosquitto_unsubscribe_v5(m_mosq, nullptr, filter.c_str(), nullptr);
    m_wakeup.Raise();
  }
}

KelBusResult MqttLink::Configure() {
  if (m_wakeup.Descriptor() < 0)
    return Fail(KELBUS_ERR_TRANSPORT,
                std::string("cannot create an eventfd: ") + std::strerror(errno));
  m_mosq = mosquitto_new(m_clientId.empty() ? nullptr : m_clientId.c_str(), !m_sessionExpiry, this);
  if (m_mosq == nullptr)
    return Fail(KELBUS_ERR_TRANSPORT, "cannot create an MQTT client");
  mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_threaded_set(m_mosq, true);
  mosquitto_connect_v5_callback_set(m_mosq, &MqttLink::HandleConnect);
  mosquitto_publish_v5_callback_set(m_mosq, &MqttLink::HandlePublish);
  mosquitto_subscribe_v5_callback_set(m_mosq, &MqttLink::HandleSubscribe);
  mosquitto_message_v5_callback_set(m_mosq, &MqttLink::HandleMessage);
  if (m_address.kind == BusAddress::Kind::kMqtts) {
    if (const KelBusResult result = SetUpTls(m_mosq, m_address.tls); result != KELBUS_OK)
      return result;
  }
  if (!m_address.user.empty()) {
    const char* password = m_address.password.empty() ? nullptr : m_address.password.c_str();
    mosquitto_username_pw_set(m_mosq, m_address.user.c_str(), password);
  }
  if (!m_willTopic.empty()) {
    Properties properties = IntervalProperty(MQTT_PROP_WILL_DELAY_INTERVAL, m_willDelay);
    if (Properties expiry = WillExpiry()) {
      mosquitto_property* list = properties.release();
      mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                   static_cast<std::uint32_t>(m_willExpiry.count()));
      properties.reset(list);
    }
    const int result =
        mosquitto_will_set_v5(m_mosq, m_willTopic.c_str(), static_cast<int>(m_willPayload.size()),
                              m_willPayload.data(), kQos, true, properties.get());
    if (result != MOSQ_ERR_SUCCESS)
      return FailFromMosquitto(result, KELBUS_ERR_TRANSPORT, "cannot set the departure record");
    properties.release();  // the library owns it now
  }
  return KELBUS_OK;
}

int MqttLink::StartConnecting() {
  if (!m_sessionExpiry) {
    return mosquitto_connect_bind_async(m_mosq, m_address.host.c_str(), m_address.port,
                                        m_keepaliveSeconds, nullptr);
  }
  const Properties expiry = IntervalProperty(MQTT_PROP_SESSION_EXPIRY_INTERVAL, *m_sessionExpiry);
  return mosquitto_connect_bind_v5(m_mosq, m_address.host.c_str(), m_address.port,
                                   m_keepaliveSeconds, nullptr, expiry.get());
}

KelBusResult MqttLink::Open(Clock::time_point deadline) {
  if (const KelBusResult result = Configure(); result != KELBUS_OK)
    return result;
  const int started = StartConnecting();
  if (started != MOSQ_ERR_SUCCESS) {
    const KelBusResult result =
        FailFromMosquitto(started, KELBUS_ERR_UNREACHABLE, "cannot connect");
    Close(false);
    return result;
  }
  m_thread = std::thread(&MqttLink::Run, this);
  std::unique_lock lock(m_mutex);
  m_changed.wait_until(lock, deadline, [this] { return m_state != State::kConnecting; });
  if (m_state == State::kUp)
    return KELBUS_OK;
  const std::string why = m_state == State::kConnecting ? "no answer" : m_failure;
  const KelBusResult result = m_refused ? KELBUS_ERR_REFUSED : KELBUS_ERR_UNREACHABLE;
  lock.unlock();
  Close(false);
  return Fail(result, why);
}

KelBusResult MqttLink::Settle(Clock::time_point deadline) {
  std::unique_lock lock(m_mutex);
  const bool settled = m_changed.wait_until(lock, deadline, [this] {
    return m_state != State::kUp || (m_awaitedSubscriptions.empty() && m_window.Empty());
  });
  if (m_state != State::kUp) {
    return Fail(KELBUS_ERR_DISCONNECTED, "the connection to " + m_address.Describe() + " broke");
  }
  if (!settled)
    return Fail(KELBUS_ERR_TRANSPORT, "the broker did not acknowledge in time");
  if (m_subscriptionRefused)
    return Fail(KELBUS_ERR_REFUSED, "the broker refused a subscription");
  return TakeRefusalLocked();
}

KelBusResult MqttLink::TakeRefusalLocked() {
  if (m_refusal.empty())
    return KELBUS_OK;
  return Fail(KELBUS_ERR_REFUSED,
              "the broker at " + m_address.Describe() + " " + std::exchange(m_refusal, {}));
}

KelBusResult MqttLink::Drain(Clock::time_point deadline) {
  {
    std::lock_guard lock(m_mutex);
    if (m_state == State::kUp && !m_subscriptions.empty())
      SubscribeLocked(m_subscriptions.front());
  }
  return Settle(deadline);
}

KelBusResult MqttLink::Publish(const std::string& topic, const void* bytes, int size,
                               const mosquitto_property* properties, Clock::time_point deadline) {
  const std::size_t cost = static_cast<std::size_t>(size) + topic.size() + kMessageOverhead;
  std::unique_lock lock(m_mutex);
  const auto usable = [this] { return m_state == State::kUp || m_state == State::kDown; };
  const bool room = m_changed.wait_until(lock, deadline, [&] {
    return !usable() || m_window.HasRoomFor(cost, KELBUS_SEND_WINDOW_BYTES);
  });
  if (!usable()) {
    return Fail(KELBUS_ERR_DISCONNECTED, "the connection to " + m_address.Describe() +
                                             " is closed; the message was not sent");
  }
  if (const KelBusResult refused = TakeRefusalLocked(); refused != KELBUS_OK)
    return refused;
  if (!room) {
    return Fail(KELBUS_ERR_TIMEOUT, "the broker at " + m_address.Describe() +
                                        " did not take the messages before it in time");
  }
  return PublishLocked(topic, bytes, size, properties, Publication::kCounted);
}

void MqttLink::PublishControl(const std::string& topic, std::string_view payload,
                              const mosquitto_property* properties) {
  std::lock_guard lock(m_mutex);
  if (m_state == State::kUp || m_state == State::kDown) {
    PublishLocked(topic, payload.data(), static_cast<int>(payload.size()), properties,
                  Publication::kControl);
  }
}

KelBusResult MqttLink::PublishLocked(const std::string& topic, const void* bytes, int size,
                                     const mosquitto_property* properties,
                                     Publication publication) {
  int mid = 0;
  const int result = mosquitto_publish_v5(m_mosq, &mid, topic.c_str(), size, bytes, kQos,
                                          publication == Publication::kRetained, properties);
  WriteOrWakeLocked();
  // NO_CONN: the connection broke before the link's thread noticed.  The
  // library keeps a QoS 1 message queued all the same and sends it once the
  // connection is restored, so it is in flight like any other.
  if (result != MOSQ_ERR_SUCCESS && result != MOSQ_ERR_NO_CONN) {
    return FailFromMosquitto(result, KELBUS_ERR_TRANSPORT,
                             "cannot send a message of " + std::to_string(size) + " bytes");
  }
  if (publication != Publication::kControl)
    m_window.Add(mid, static_cast<std::size_t>(size) + topic.size() + kMessageOverhead);
  return KELBUS_OK;
}

void MqttLink::Close(bool withWill) {
  {
    std::lock_guard lock(m_mutex);
    if (m_state == State::kClosed)
      return;
    StopLocked(withWill);
  }
  m_changed.notify_all();
  if (m_thread.joinable())
    m_thread.join();
  if (m_mosq != nullptr)
    mosquitto_destroy(m_mosq);
  m_mosq = nullptr;
  std::lock_guard lock(m_mutex);
  SetStateLocked(State::kClosed);
}

void MqttLink::StopLocked(bool withWill) {
  const bool up = m_state == State::kUp;
  if (up) {
    // Set before m_stopping, so that the thread writes the DISCONNECT out.
    m_stopDeadline = Clock::now() + kGoodbyeLimit;
    m_sayingGoodbye = true;
  }
  // Set before the DISCONNECT is queued, so that the thread does not take
  // the closed socket for a broken connection.
  m_stopping = true;
  if (up) {
    if (withWill && !m_willTopic.empty()) {
      PublishLocked(m_willTopic, m_willPayload.data(), static_cast<int>(m_willPayload.size()),
                    WillExpiry().get(), Publication::kRetained);
    }
    const Properties endSession =
        m_sessionExpiry ? IntervalProperty(MQTT_PROP_SESSION_EXPIRY_INTERVAL, {}) : nullptr;
    mosquitto_disconnect_v5(m_mosq, 0, endSession.get());
  }
  m_wakeup.Raise();
}

void MqttLink::GiveUp() {
  {
    std::lock_guard lock(m_mutex);
    if (m_stopping)
      return;
    StopLocked(false);
    SetStateLocked(State::kGivenUp);
  }
  m_listener.OnStateChanged();
}

void MqttLink::AbandonAfterFork() {
  if (m_mosq == nullptr)
    return;
  const int socket = mosquitto_socket(m_mosq);
  if (socket >= 0)
    ::close(socket);
}

MqttLink::State MqttLink::CurrentState() const {
  std::lock_guard lock(m_mutex);
  return m_state;
}

void MqttLink::Run() {
  t_onNetworkThread = true;
  for (;;) {
    const int result = Step(kLoopSliceMs);
    if (m_stopping) {
      if (result != MOSQ_ERR_SUCCESS || !m_sayingGoodbye || Clock::now() > m_stopDeadline)
        return;
      continue;
    }
    if (result == MOSQ_ERR_SUCCESS)
      continue;
    if (!ConnectionBroke(result) || !StartReconnecting())
      return;
  }
}

int MqttLink::Step(int timeoutMs) {
  const int socket = mosquitto_socket(m_mosq);
  if (socket < 0)
    return MOSQ_ERR_NO_CONN;
  // From here a sender wakes the thread; what it queued before, the thread
  // sees now (WriteOrWakeLocked fences likewise).
  m_networkBusy = false;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  const short writable = mosquitto_want_write(m_mosq) ? POLLOUT : 0;
  pollfd watched[] = {{socket, static_cast<short>(POLLIN | writable), 0},
                      {m_wakeup.Descriptor(), POLLIN, 0}};
  const int ready = poll(watched, std::size(watched), timeoutMs);
  m_networkBusy = true;
  if (ready < 0)
    return errno == EINTR ? MOSQ_ERR_SUCCESS : MOSQ_ERR_ERRNO;
  const bool woken = (watched[1].revents & POLLIN) != 0;
  if (woken)
    m_wakeup.Clear();
  const std::lock_guard io(m_ioMutex);
  // libmosquitto goes on with a TLS handshake only in mosquitto_loop_read,
  // also when the handshake waits for the socket to become writable.
  const short handshake = m_address.kind == BusAddress::Kind::kMqtts ? POLLOUT : 0;
  const bool readable = (watched[0].revents & (POLLIN | POLLERR | POLLHUP | handshake)) != 0;
  if (readable) {
    if (const int result = mosquitto_loop_read(m_mosq, 1); result != MOSQ_ERR_SUCCESS)
      return result;
  }
  // Packets queued since the poll began, by other threads or by the read
  // (acknowledgements), are written now, not a round later.
  if ((watched[0].revents & POLLOUT) != 0 ||
      ((woken || readable) && mosquitto_want_write(m_mosq))) {
    if (const int result = mosquitto_loop_write(m_mosq, 1); result != MOSQ_ERR_SUCCESS)
      return result;
  }
  return mosquitto_loop_misc(m_mosq);
}

bool MqttLink::ConnectionBroke(int loopResult) {
  const std::string why = Describe(loopResult, errno);
  bool wasUp = false;
  bool restore = false;
  {
    std::lock_guard lock(m_mutex);
    // Messages in flight stay in the window: the library sends them again
    // after reconnecting, and their acknowledgements empty it.
    m_awaitedSubscriptions.clear();
    wasUp = m_state == State::kUp;
    restore = m_everUp;
    if (!restore && m_failure.empty()) {
      m_failure = why;
      // The handshake failed: the bus refused the broker, not the reverse.
      m_refused = loopResult == MOSQ_ERR_TLS;
    }
    SetStateLocked(restore ? State::kDown : State::kFailed);
  }
  if (wasUp) {
    Diagnose("KelBus: lost the connection to " + m_address.Describe() + " (" + why +
             "); restoring it");
  }
  m_listener.OnStateChanged();
  return restore;
}

bool MqttLink::StartReconnecting() {
  for (;;) {
    {
      std::unique_lock lock(m_mutex);
      m_changed.wait_for(lock, m_backoff, [this] { return m_stopping.load(); });
      if (m_stopping)
        return false;
      m_backoff = std::min(m_backoff * 2, kLongestBackoff);
    }
    const Verdict verdict = m_guard ? m_guard() : Verdict::kReconnect;
    if (verdict == Verdict::kGiveUp) {
      GiveUp();
      return false;
    }
    if (verdict == Verdict::kReconnect && mosquitto_reconnect_async(m_mosq) == MOSQ_ERR_SUCCESS) {
      return true;
    }
  }
}

void MqttLink::Connected(int reason) {
  bool restored = false;
  {
    std::lock_guard lock(m_mutex);
    if (reason != 0) {
      m_failure =
          std::string("the broker refused the connection: ") + mosquitto_reason_string(reason);
      m_refused = true;
      return;
    }
    if (m_address.kind == BusAddress::Kind::kMqtts)
      KeepTlsBuffers(m_mosq);
    restored = m_everUp;
    m_everUp = true;
    m_backoff = kFirstBackoff;
    m_subscriptionRefused = false;
    for (const Subscription& subscription : m_subscriptions)
      SubscribeLocked(subscription);
    if (!m_birthTopic.empty()) {
      PublishLocked(m_birthTopic, m_birthPayload.data(), static_cast<int>(m_birthPayload.size()),
                    nullptr, Publication::kRetained);
    }
    SetStateLocked(State::kUp);
  }
  if (restored) {
    Diagnose("KelBus: the connection to " + m_address.Describe() + " is restored");
    m_listener.OnRestored();
  }
  m_listener.OnStateChanged();
}

void MqttLink::SubscribeLocked(const Subscription& subscription) {
  int mid = 0;
  if (mosquitto_subscribe_v5(m_mosq, &mid, subscription.filter.c_str(), kQos, subscription.options,
                             nullptr) == MOSQ_ERR_SUCCESS) {
    m_awaitedSubscriptions.push_back(mid);
    WriteOrWakeLocked();
  }
}

void MqttLink::WriteOrWakeLocked() {
  if (!t_onNetworkThread && m_state == State::kUp) {
    const std::unique_lock io(m_ioMutex, std::try_to_lock);
    if (io.owns_lock() && mosquitto_loop_write(m_mosq, 1) == MOSQ_ERR_SUCCESS &&
        !mosquitto_want_write(m_mosq)) {
      return;
    }
  }
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!m_networkBusy)
    m_wakeup.Raise();
}

void MqttLink::SetStateLocked(State state) {
  m_state = state;
  m_changed.notify_all();
}

void MqttLink::HandleConnect(mosquitto*, void* self, int reason, int, const mosquitto_property*) {
  Self(self).Connected(reason);
}

void MqttLink::HandlePublish(mosquitto*, void* self, int mid, int reason,
                             const mosquitto_property*) {
  MqttLink& link = Self(self);
  std::lock_guard lock(link.m_mutex);
  if (reason >= MQTT_RC_UNSPECIFIED) {
    link.m_refusal = std::string("refused a message: ") + mosquitto_reason_string(reason);
  }
  link.m_window.Acknowledge(mid);
  link.m_changed.notify_all();
}

void MqttLink::HandleSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                               const mosquitto_property*) {
  MqttLink& link = Self(self);
  std::lock_guard lock(link.m_mutex);
  std::erase(link.m_awaitedSubscriptions, mid);
  for (int i = 0; i < count; ++i) {
    if (granted[i] >= MQTT_RC_UNSPECIFIED)
      link.m_subscriptionRefused = true;
  }
  link.m_changed.notify_all();
}

void MqttLink::HandleMessage(mosquitto*, void* self, const mosquitto_message* message,
                             const mosquitto_property* properties) {
  // What the broker sent before it read the DISCONNECT of a link that gave
  // up is no longer this link's to hand on.
  MqttLink& link = Self(self);
  if (link.CurrentState() != State::kGivenUp)
    link.m_listener.OnMessage(*message, properties);
}

}  // namespace kelbus
