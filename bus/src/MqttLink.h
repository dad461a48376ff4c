// One MQTT 5 connection to the broker, driven by a network thread of its
// own.  The thread polls the socket itself and lets libmosquitto read and
// write: mosquitto_loop would use select(), which cannot watch a descriptor
// above 1023, and a solver may well hold that many files open.  A thread
// that sends writes its packet itself when the network thread is not busy
// with the socket.
//
// The link restores a broken connection by itself, with growing delays, and
// asks its reconnect guard first: a guard may postpone the attempt or give
// the connection up for good.  After every connect it renews its
// subscriptions and publishes its birth message; the broker publishes its
// will when the connection breaks (after the will's delay) or is closed with
// will.
//
// A link with a lasting session keeps it on the broker across broken
// connections: the broker queues what arrives meanwhile, and what was in
// flight goes again, under the same packet identifiers, once the connection
// is back.  Closing the link ends its session.
//
// Threads: the set-up calls (SetLastingSession, SetWill, SetBirth,
// SetReconnectGuard, SetKeepalive) come before Open, on one thread.  Everything else may be called
// from any thread but the link's own (GiveUp from its own as well); the listener and the guard
// run on the link's thread.
#ifndef KELBUS_SRC_MQTTLINK_H_
#define KELBUS_SRC_MQTTLINK_H_

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>

#include "BusAddress.h"
#include "SendWindow.h"
#include "Wakeup.h"

namespace kelbus {

// The one place where libmosquitto's result codes become the bus's: records
// `doing` and the reason as the calling thread's last error and returns the
// bus's code for a failed `mosquittoResult`; `otherwise` unless the failure
// means something to the bus's caller.
KelBusResult FailFromMosquitto(int mosquittoResult, KelBusResult otherwise,
                               const std::string& doing);

// An owned list of MQTT 5 properties (null: none).
struct PropertiesDeleter {
  void operator()(mosquitto_property* properties) const {
    mosquitto_property_free_all(&properties);
  }
};
using Properties = std::unique_ptr<mosquitto_property, PropertiesDeleter>;

// A list of one interval property (session expiry, will delay), in seconds.
Properties IntervalProperty(int identifier, std::chrono::seconds interval);

class MqttLink {
 public:
  using Clock = std::chrono::steady_clock;

  enum class State {
    kConnecting,  // first connection under way
    kUp,
    kDown,     // broken, being restored
    kFailed,   // the first connection failed; the link is unusable
    kGivenUp,  // given up for good (GiveUp)
    kClosed,
  };

  enum class Verdict { kReconnect, kRetryLater, kGiveUp };

  class Listener {
   public:
    // Every message the broker delivers; `properties` may be null.
    virtual void OnMessage(const mosquitto_message& message,
                           const mosquitto_property* properties) = 0;
    // The link's state changed.
    virtual void OnStateChanged() = 0;
    // The connection is back after it broke.  What the broker took from
    // the link and had not delivered yet may be gone: a broker killed loses
    // what came since it last saved its state, and a session that expired
    // loses everything.  Called before OnStateChanged.
    virtual void OnRestored() {}

   protected:
    ~Listener() = default;
  };

  // An empty `clientId` lets the broker's library choose a random one.
  MqttLink(const BusAddress& address, std::string clientId, Listener& listener);
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  // Without it the session ends with the connection.  `expiry` is how long
  // the broker keeps it while the connection is down.
  void SetLastingSession(std::chrono::seconds expiry);
  // Both retained, QoS 1; the broker holds the will back for `delay` after
  // the connection broke, and drops it `expiry` after publishing it (0:
  // keeps it).
  void SetWill(std::string topic, std::string payload, std::chrono::seconds delay,
               std::chrono::seconds expiry);
  void SetBirth(std::string topic, std::string payload);
  void SetReconnectGuard(std::function<Verdict()> guard);
  // KELBUS_KEEPALIVE_SECONDS unless set.
  void SetKeepalive(std::chrono::seconds keepalive);

  // Subscriptions are kept and renewed after every connect.
  void Subscribe(std::string filter, int options);
  void Unsubscribe(const std::string& filter);

  // Makes the first connection and waits for the broker's CONNACK until
  // `deadline`.  On failure the link is unusable and the reason is the
  // calling thread's last error.
  KelBusResult Open(Clock::time_point deadline);
  // Waits until the broker has acknowledged every subscription and message
  // so far.  KELBUS_ERR_REFUSED when it refused one of them since the last
  // Settle or Publish that said so.
  KelBusResult Settle(Clock::time_point deadline);
  // As Settle, and waits as well until the link has read every message that
  // the broker sent it so far: renews a subscription, whose acknowledgement
  // comes after them.
  KelBusResult Drain(Clock::time_point deadline);
  // Publishes at QoS 1, not retained, once the send window has room, also
  // while the connection is being restored: what the window holds goes out
  // once it is back.  Gives up at `deadline` (KELBUS_ERR_TIMEOUT).  Fails
  // with KELBUS_ERR_REFUSED, sending nothing, when the broker refused a
  // message since the last report of a refusal.
  KelBusResult Publish(const std::string& topic, const void* bytes, int size,
                       const mosquitto_property* properties, Clock::time_point deadline);
  // Publishes at QoS 1, not retained, at once and outside the send window,
  // also while the connection is being restored: a small message, or one
  // that goes again.
  void PublishControl(const std::string& topic, std::string_view payload,
                      const mosquitto_property* properties = nullptr);
  // Disconnects, ending the session, and stops the thread.  With
  // `withWill` the link publishes its will itself first: the broker would
  // hold it back for the will's delay even though the session ends.
  // Idempotent.
  void Close(bool withWill);
  // Gives the connection up for good, as a reconnect guard's kGiveUp does:
  // ends the session without will, delivers nothing more to the listener
  // and stops the thread; the state is kGivenUp from then on.  Does nothing
  // to a link that is closing or gave up already.
  void GiveUp();
  // In a forked child: closes the inherited socket; nothing else is touched.
  void AbandonAfterFork();

  State CurrentState() const;
  const BusAddress& Address() const { return m_address; }

 private:
  struct Subscription {
    std::string filter;
    int options;
  };

  static void HandleConnect(mosquitto*, void* self, int reason, int flags,
                            const mosquitto_property* properties);
  static void HandlePublish(mosquitto*, void* self, int mid, int reason,
                            const mosquitto_property* properties);
  static void HandleSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                              const mosquitto_property* properties);
  static void HandleMessage(mosquitto*, void* self, const mosquitto_message* message,
                            const mosquitto_property* properties);

  KelBusResult Configure();
  // Starts the first connection; a lasting session needs its expiry in the
  // CONNECT, which libmosquitto sends only from a connect that waits for the
  // TCP handshake.
  int StartConnecting();
  void Run();
  // One round of the network thread: waits up to `timeoutMs` for the socket
  // or a wake-up, then reads, writes and keeps the connection alive.
  // Returns libmosquitto's result.
  int Step(int timeoutMs);
  // Returns whether the link should try to restore the connection.
  bool ConnectionBroke(int loopResult);
  // Returns once an attempt to reconnect is under way, or false when the
  // link stops or gives up.
  bool StartReconnecting();
  void Connected(int reason);
  void SubscribeLocked(const Subscription& subscription);
  // Writes out what the calling thread has just queued, unless the network
  // thread is busy with the socket or is the caller: then it is left to
  // write it, and woken if it may be waiting.  Writing at once saves a
  // hand-over between threads on every message.  A write that fails closes
  // the socket, and the network thread finds it closed and restores the
  // connection.
  void WriteOrWakeLocked();
  enum class Publication { kCounted, kRetained, kControl };
  KelBusResult PublishLocked(const std::string& topic, const void* bytes, int size,
                             const mosquitto_property* properties, Publication publication);
  void SetStateLocked(State state);
  // Makes the thread stop; a connection that is up says goodbye first, with
  // the will published when `withWill`, and ends the session.
  void StopLocked(bool withWill);
  // KELBUS_ERR_REFUSED, once, after the broker refused a message.
  KelBusResult TakeRefusalLocked();
  // The message expiry of the will, or none.
  Properties WillExpiry() const;

  const BusAddress m_address;
  const std::string m_clientId;
  Listener& m_listener;
  std::optional<std::chrono::seconds> m_sessionExpiry;  // none: ephemeral
  std::string m_willTopic, m_willPayload;
  std::chrono::seconds m_willDelay{0};
  std::chrono::seconds m_willExpiry{0};
  std::string m_birthTopic, m_birthPayload;
  std::function<Verdict()> m_guard;
  int m_keepaliveSeconds = KELBUS_KEEPALIVE_SECONDS;

  mosquitto* m_mosq = nullptr;
  // Raised after queueing packets from other threads, so that the network
  // thread writes them out, unless it is busy: it looks for queued packets
  // before it waits again, and a wake-up would cost it a round for nothing.
  Wakeup m_wakeup;
  std::atomic<bool> m_networkBusy{true};  // false from just before its wait
  std::thread m_thread;
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_sayingGoodbye{false};
  Clock::time_point m_stopDeadline;

  // Held around libmosquitto's reads and writes of the socket, so that a
  // sending thread may write while the network thread does not.  Taken
  // before m_mutex, or else only tried.
  std::mutex m_ioMutex;

  mutable std::mutex m_mutex;  // guards everything below
  std::condition_variable m_changed;
  State m_state = State::kConnecting;
  bool m_everUp = false;
  std::string m_failure;   // why the first connection failed
  bool m_refused = false;  // ... because the broker said no
  std::chrono::milliseconds m_backoff;
  std::vector<Subscription> m_subscriptions;
  std::vector<int> m_awaitedSubscriptions;  // mids without SUBACK
  bool m_subscriptionRefused = false;
  std::string m_refusal;  // why the broker refused a message, until reported
  SendWindow m_window;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_MQTTLINK_H_
