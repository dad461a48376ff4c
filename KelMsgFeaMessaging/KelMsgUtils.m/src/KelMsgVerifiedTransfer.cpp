#include <KelMsgFeaMessaging/KelMsgVerifiedTransfer.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferObserver.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>

#include "KelMsgByteTally.h"
#include "KelMsgConfinement.h"

namespace {

using Clock = std::chrono::steady_clock;
using Receipt = KelMsgTransferReceipt;

constexpr char kPartialSuffix[] = ".partial";
constexpr int kWaiting = -1;
constexpr int kDone = 0;
// Pullers owed a statement at once.  The request that follows an ask from
// the same puller settles it, so only a handful wait at a time; the bound
// keeps asks that no request follows (forged, or from pullers that died)
// from growing the list, and such asks make room once they are this old.
constexpr std::size_t kMostAskers = 256;
constexpr std::chrono::seconds kAskLifetime{60};

// The file as its own side names it, for people.
std::string ShownName(const char* jobDir, const char* fileName) {
  if (*jobDir == '\0' || *fileName == '/')
    return fileName;
  return std::string(jobDir) + "/" + fileName;
}

std::string Count(std::int64_t bytes) {
  return std::to_string(bytes);
}

std::string Reason(const Receipt& receipt) {
  const char* reason = receipt.m_reason.GetUTF8();
  return *reason != '\0' ? reason : "short write";
}

// Who does what in one transfer, as this side tells it: a party's name is
// "" for this side.
struct Parties {
  std::string sender;
  std::string receiver;
  std::string source;  // the file as the sender names it
  std::string target;  // as the receiver names it
};

std::string Subject(const std::string& party) {
  return party.empty() ? "" : party + " ";
}

// The cause of a failed transfer in one line, "" when nothing failed and
// the counts and digests agree.  Without a statement (`sent` null) only the
// receiver's own failures count.
std::string Verdict(const Parties& parties, const Receipt* sent, const Receipt& written) {
  if (sent != nullptr && sent->m_failure != Receipt::FAILURE_NONE) {
    return Subject(parties.sender) + "could not read " + parties.source + ": " + Reason(*sent);
  }
  const std::string counts =
      sent != nullptr ? " (" + Count(written.m_bytes) + " of " + Count(sent->m_bytes) + " bytes)"
                      : " (" + Count(written.m_bytes) + " bytes written)";
  const std::string receiver = Subject(parties.receiver);
  switch (written.m_failure) {
    case Receipt::FAILURE_CANNOT_CREATE:
      return receiver + "could not create " + parties.target + ": " + Reason(written);
    case Receipt::FAILURE_CANNOT_WRITE:
      return receiver + "could not write " + parties.target + ": " + Reason(written) + counts;
    case Receipt::FAILURE_ABANDONED:
      return receiver + "abandoned " + parties.target + ": " + Reason(written) + counts;
    case Receipt::FAILURE_SENDER_LEFT:
      return Subject(parties.sender) + "left the bus while sending " + parties.source + " (" +
             Count(written.m_bytes) + " bytes received)";
    default:
      break;
  }
  if (sent == nullptr || sent->Matches(written))
    return "";
  return receiver + "wrote " + parties.target + " unlike what " +
         (parties.sender.empty() ? std::string("was") : parties.sender) + " sent" + counts;
}

// One file that this side receives, from its announcement (or request) to
// its end.
struct Inbound {
  Parties parties;
  std::string finalPath;
  std::string partialPath;
  std::string partialName;
  bool pulled = false;   // this side asked for it and waits
  bool created = false;  // the engine opened the partial file, which is ours to remove
  bool closed = false;   // the engine has closed and forgotten it
  KelMsgByteTally written;
  std::optional<Receipt> statement;
};

}  // namespace

class KelMsgVerifiedTransfer::Parts : public KelMsgFileTransferObserver {
 public:
  Parts(int communicatorId, const char* application, FILE* traceStream, int traceLevel,
        FILE* report)
      : m_communicatorId(communicatorId),
        m_application(application),
        m_report(report),
        m_engine(communicatorId, traceStream, traceLevel),
        m_plainRoute(&m_engine),
        m_departures(*this),
        m_sent(std::make_unique<KelMsgByteTally>()) {
    m_engine.SetObserver(this);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
        new KelMsgFileTransferType,
        new Route<KelMsgFileTransferType, &Parts::OnFileTransfer>(*this));
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
        new KelMsgTransferReceiptType,
        new Route<KelMsgTransferReceiptType, &Parts::OnReceipt>(*this));
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  bool Push(const char* sourceBaseDir, const char* sourceJobDir, const char* sourceFileName,
            const char* target, const char* targetBaseDir, const char* targetJobDir,
            const char* targetFileName, bool wait);
  bool Pull(const char* source, const char* sourceBaseDir, const char* sourceJobDir,
            const char* sourceFileName, const char* targetBaseDir, const char* targetJobDir,
            const char* targetFileName);
  KelMsgFileTransfer& Engine() { return m_engine; }

  int m_patienceSeconds = 0;
  bool m_keepPartial = false;
  std::function<void(int bytes)> m_progress;
  KelString m_lastReport;
  const KelMsgBBDisconnectHandler& Departures() const { return m_departures; }

 private:
  // Hands the messages of one type to one operation of the parts.
  template <class Message, void (Parts::*Operation)(const Message&, const char*)>
  class Route : public KelMsgBBMessageHandler {
   public:
    explicit Route(Parts& parts) : m_parts(parts) {}
    void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
      // The registry hands a handler only messages of its own type.
      (m_parts.*Operation)(static_cast<const Message&>(msg), id);
    }

   private:
    Parts& m_parts;
  };

  class DepartureWatcher : public KelMsgBBDisconnectHandler {
   public:
    explicit DepartureWatcher(Parts& parts) : m_parts(parts) {}
    void DetectDisconnection(int /*pid*/, const char* app, const char* /*host*/,
                             const char* /*user*/) const override {
      m_parts.PeerLeft(app);
    }

   private:
    Parts& m_parts;
  };

  enum class WaitEnd { kEnded, kSilent, kBusLost };

  // The engine's facts.
  void SendFileOpened(const char* path, int descriptor, int error) override;
  void ChunkRead(const void* data, int bytes, int error) override;
  void ReceiveFileOpened(const char* source, const char* path, int descriptor, int error) override;
  void ChunkWritten(const char* source, const void* data, int size, int written,
                    int error) override;
  void TransferAbandoned(const char* source) override;
  void ReceiveFileIdle(const char* source, int seconds) override;
  void ReceiveFileClosed(const char* source) override;
  void IdleFilesClosed() override;

  void OnFileTransfer(const KelMsgFileTransferType& msg, const char* id);
  void OnReceipt(const KelMsgTransferReceiptType& msg, const char* id);
  void PeerLeft(const char* application);
  bool Admits(const char* id) const;
  void TakeAsk(const char* id);

  void ServeRequest(const KelMsgFileTransferData& request, const char* id);
  void Announce(const KelMsgFileTransferData& notice);
  Inbound& Expect(const std::string& source, Parties parties, const char* baseDir,
                  const char* jobDir, const char* fileName, bool pulled);
  Inbound* Find(const char* source);
  void Finish(const std::string& source);
  void SendReceipt(const char* application, KelMsgTransferReceiptType::e_step step,
                   const char* fileName, const Receipt& receipt) const;
  void SendEnded(const Parties& parties, const Receipt& sent) const;
  WaitEnd WaitForPeer(const std::string& peer);
  std::string Silence() const;
  bool Conclude(bool verified, const std::string& line);
  void Progress(int bytes) const;
  void Log(const std::string& line) const;

  int m_communicatorId;
  std::string m_application;
  FILE* m_report;
  KelMsgFileTransfer m_engine;
  KelMsgFileTransferHandler m_plainRoute;  // what needs no verifying
  DepartureWatcher m_departures;
  std::map<std::string, Inbound> m_inbound;           // by source application
  std::map<std::string, Clock::time_point> m_askers;  // pullers owed a statement, since
  std::unique_ptr<KelMsgByteTally> m_sent;            // the file being sent
  // The wait of a Push or a Pull.
  int m_waitFlag = kDone;
  std::string m_awaited;
  // While a Pull or a waiting Push runs: the only peer heard, and what
  // this side does with it.
  std::string m_onlyPeer;
  const char* m_onlyWhy = "";
  std::optional<Receipt> m_receipt;
  bool m_pullVerified = false;
  Clock::time_point m_lastHeard;
};

void KelMsgVerifiedTransfer::Parts::SendFileOpened(const char* /*path*/, int descriptor,
                                                   int error) {
  if (descriptor < 0)
    m_sent->Fail(Receipt::FAILURE_CANNOT_READ, KelMsgConfinement::Describe(error));
}

void KelMsgVerifiedTransfer::Parts::ChunkRead(const void* data, int bytes, int error) {
  if (bytes > 0) {
    m_sent->Add(data, bytes);
    Progress(bytes);
  }
  if (bytes < 0)
    m_sent->Fail(Receipt::FAILURE_CANNOT_READ, KelMsgConfinement::Describe(error));
}

void KelMsgVerifiedTransfer::Parts::ReceiveFileOpened(const char* source, const char* /*path*/,
                                                      int descriptor, int error) {
  Inbound* inbound = Find(source);
  if (inbound == nullptr)
    return;
  inbound->created = descriptor >= 0;
  if (descriptor < 0)
    inbound->written.Fail(Receipt::FAILURE_CANNOT_CREATE, KelMsgConfinement::Describe(error));
}

void KelMsgVerifiedTransfer::Parts::ChunkWritten(const char* source, const void* data, int size,
                                                 int written, int error) {
  Inbound* inbound = Find(source);
  if (inbound == nullptr)
    return;
  m_lastHeard = Clock::now();
  if (written > 0) {
    inbound->written.Add(data, written);
    Progress(written);
  }
  if (written < 0)
    inbound->written.Fail(Receipt::FAILURE_CANNOT_WRITE, std::strerror(error));
  else if (written < size)
    inbound->written.Fail(Receipt::FAILURE_CANNOT_WRITE, "");
}

void KelMsgVerifiedTransfer::Parts::TransferAbandoned(const char* source) {
  if (Inbound* inbound = Find(source))
    inbound->written.Fail(Receipt::FAILURE_ABANDONED, "chunks came out of sequence");
}

void KelMsgVerifiedTransfer::Parts::ReceiveFileIdle(const char* source, int seconds) {
  if (Inbound* inbound = Find(source)) {
    inbound->written.Fail(Receipt::FAILURE_ABANDONED, ("nothing came from " + std::string(source) +
                                                       " for " + std::to_string(seconds) + " s")
                                                          .c_str());
  }
}

void KelMsgVerifiedTransfer::Parts::ReceiveFileClosed(const char* source) {
  if (Inbound* inbound = Find(source))
    inbound->closed = true;
}

void KelMsgVerifiedTransfer::Parts::OnFileTransfer(const KelMsgFileTransferType& msg,
                                                   const char* id) {
  if (!Admits(id))
    return;
  m_lastHeard = Clock::now();
  const KelMsgFileTransferData& record = msg.Data();
  switch (record.m_dataType) {
    case KelMsgFileTransferData::FILE_TRANSFER_SEND_REQUEST:
      ServeRequest(record, id);
      return;
    case KelMsgFileTransferData::FILE_TRANSFER_NOTIFY:
      Announce(record);
      return;
    default:
      m_plainRoute.HandleMessage(msg, id);
  }
  // A completion closes the file: the transfer is over.
  const Inbound* inbound = Find(id);
  if (inbound != nullptr && inbound->closed)
    Finish(id);
}

void KelMsgVerifiedTransfer::Parts::OnReceipt(const KelMsgTransferReceiptType& msg,
                                              const char* id) {
  if (!Admits(id))
    return;
  m_lastHeard = Clock::now();
  switch (msg.Step()) {
    case KelMsgTransferReceiptType::RECEIPT_ASK:
      TakeAsk(id);
      break;
    case KelMsgTransferReceiptType::RECEIPT_SENT:
      if (Inbound* inbound = Find(id))
        inbound->statement = msg.Receipt();
      break;
    case KelMsgTransferReceiptType::RECEIPT_WRITTEN:
      if (m_awaited == id && !m_receipt) {
        m_receipt = msg.Receipt();
        m_waitFlag = kDone;
      }
      break;
    default:
      break;
  }
}

void KelMsgVerifiedTransfer::Parts::TakeAsk(const char* id) {
  const auto now = Clock::now();
  if (m_askers.size() >= kMostAskers)
    std::erase_if(m_askers, [now](const auto& ask) { return now - ask.second > kAskLifetime; });
  if (m_askers.size() >= kMostAskers && !m_askers.contains(id)) {
    Log("refused to state what is sent to " + std::string(id) + ": " +
        std::to_string(m_askers.size()) + " pullers await a statement already");
    return;
  }
  m_askers[id] = now;
}

void KelMsgVerifiedTransfer::Parts::PeerLeft(const char* application) {
  m_askers.erase(application);
  if (Inbound* inbound = Find(application)) {
    inbound->written.Fail(Receipt::FAILURE_SENDER_LEFT, "");
    // The engine's own end of a transfer closes and forgets the file.
    m_engine.ReceiveISendCompletion(application);
    Finish(application);
  }
  if (m_awaited == application)
    m_waitFlag = kDone;
}

bool KelMsgVerifiedTransfer::Parts::Admits(const char* id) const {
  if (m_onlyPeer.empty() || m_onlyPeer == id)
    return true;
  Log("refused a transfer message from " + std::string(id) + ": " + m_onlyWhy + m_onlyPeer +
      " only");
  return false;
}

void KelMsgVerifiedTransfer::Parts::ServeRequest(const KelMsgFileTransferData& request,
                                                 const char* id) {
  const char* requester = request.m_targetApplication.GetUTF8();
  const bool asked = m_askers.erase(id) > 0;
  m_sent = std::make_unique<KelMsgByteTally>();
  m_engine.Send(request.m_sourceApplication.GetUTF8(), request.m_sourceBaseDir.GetUTF8(),
                request.m_sourceJobDir.GetUTF8(), request.m_sourceFileName.GetUTF8(), requester,
                request.m_targetBaseDir.GetUTF8(), request.m_targetJobDir.GetUTF8(),
                request.m_targetFileName.GetUTF8());
  const Receipt sent = m_sent->Receipt();
  if (asked) {
    SendReceipt(requester, KelMsgTransferReceiptType::RECEIPT_SENT,
                request.m_sourceFileName.GetUTF8(), sent);
  }
  m_engine.SendISendCompletion(requester);
  SendEnded({"", requester,
             ShownName(request.m_sourceJobDir.GetUTF8(), request.m_sourceFileName.GetUTF8()),
             ShownName(request.m_targetJobDir.GetUTF8(), request.m_targetFileName.GetUTF8())},
            sent);
}

void KelMsgVerifiedTransfer::Parts::SendEnded(const Parties& parties, const Receipt& sent) const {
  if (sent.m_failure != Receipt::FAILURE_NONE) {
    Log("could not send " + parties.source + " to " + parties.receiver + ": " +
        Verdict(parties, &sent, sent));
  } else {
    Log("sent " + parties.source + " to " + parties.receiver + ": " + Count(sent.m_bytes) +
        " bytes");
  }
}

void KelMsgVerifiedTransfer::Parts::Announce(const KelMsgFileTransferData& notice) {
  const char* source = notice.m_sourceApplication.GetUTF8();
  const char* jobDir = notice.m_targetJobDir.GetUTF8();
  const char* fileName = notice.m_targetFileName.GetUTF8();
  // A second announcement of a source is the engine's to refuse; the file
  // it opens is a partial one all the same.
  const Inbound* inbound = Find(source);
  if (inbound == nullptr) {
    inbound = &Expect(
        source,
        {source, "", ShownName(notice.m_sourceJobDir.GetUTF8(), notice.m_sourceFileName.GetUTF8()),
         ShownName(jobDir, fileName)},
        notice.m_targetBaseDir.GetUTF8(), jobDir, fileName, false);
  }
  m_engine.Receive(source, notice.m_sourceBaseDir.GetUTF8(), notice.m_sourceJobDir.GetUTF8(),
                   notice.m_sourceFileName.GetUTF8(), notice.m_targetApplication.GetUTF8(),
                   notice.m_targetBaseDir.GetUTF8(), jobDir, inbound->partialName.c_str());
}

Inbound& KelMsgVerifiedTransfer::Parts::Expect(const std::string& source, Parties parties,
                                               const char* baseDir, const char* jobDir,
                                               const char* fileName, bool pulled) {
  Inbound& inbound = m_inbound[source];
  inbound.parties = std::move(parties);
  inbound.pulled = pulled;
  inbound.partialName = std::string(fileName) + kPartialSuffix;
  inbound.finalPath = KelMsgPathExplorer::FormPath(baseDir, jobDir, fileName).GetUTF8();
  inbound.partialPath =
      KelMsgPathExplorer::FormPath(baseDir, jobDir, inbound.partialName.c_str()).GetUTF8();
  return inbound;
}

Inbound* KelMsgVerifiedTransfer::Parts::Find(const char* source) {
  const auto found = m_inbound.find(source);
  return found != m_inbound.end() ? &found->second : nullptr;
}

void KelMsgVerifiedTransfer::Parts::Finish(const std::string& source) {
  auto node = m_inbound.extract(source);
  Inbound& inbound = node.mapped();
  Receipt written = inbound.written.Receipt();
  const Receipt* sent = inbound.statement ? &*inbound.statement : nullptr;
  std::string verdict = Verdict(inbound.parties, sent, written);
  if (verdict.empty() && sent == nullptr && inbound.pulled) {
    verdict =
        source + " made no statement of " + inbound.parties.source + " (does it verify transfers?)";
  }
  const int renameError = verdict.empty() ? m_engine.RenameReceivedFile(inbound.partialPath.c_str(),
                                                                        inbound.finalPath.c_str())
                                          : 0;
  if (renameError != 0) {
    written.m_failure = Receipt::FAILURE_CANNOT_WRITE;
    written.m_reason.BuildFromUTF8(
        ("cannot rename " + inbound.partialName + ": " + KelMsgConfinement::Describe(renameError))
            .c_str());
    verdict = Verdict(inbound.parties, sent, written);
  }
  if (sent != nullptr && !inbound.pulled) {
    SendReceipt(source.c_str(), KelMsgTransferReceiptType::RECEIPT_WRITTEN,
                inbound.parties.target.c_str(), written);
  }

  std::string line;
  if (verdict.empty()) {
    line = inbound.parties.target + ": " + Count(written.m_bytes) + " bytes" +
           (sent != nullptr ? ", verified" : ", unverified: " + source + " made no statement");
  } else if (m_keepPartial) {
    line = verdict + "; kept " + inbound.partialName;
  } else {
    line = verdict;
    if (inbound.created && m_engine.RemoveReceivedFile(inbound.partialPath.c_str()) == 0)
      line += "; removed " + inbound.partialName;
  }
  if (inbound.pulled) {
    m_pullVerified = Conclude(verdict.empty(), line);
    m_waitFlag = kDone;
  } else {
    Log((verdict.empty() ? "received from " : "could not receive from ") + source + ": " + line);
  }
}

void KelMsgVerifiedTransfer::Parts::SendReceipt(const char* application,
                                                KelMsgTransferReceiptType::e_step step,
                                                const char* fileName,
                                                const Receipt& receipt) const {
  const KelMsgTransferReceiptType message(step, KelString(fileName), receipt);
  KelMsgBBAPI::SendRequest(m_communicatorId, application, message);
}

KelMsgVerifiedTransfer::Parts::WaitEnd KelMsgVerifiedTransfer::Parts::WaitForPeer(
    const std::string& peer) {
  m_awaited = peer;
  m_lastHeard = Clock::now();
  WaitEnd end = WaitEnd::kEnded;
  while (m_waitFlag == kWaiting) {
    int timeout = -1;
    if (m_patienceSeconds > 0) {
      const auto left = m_lastHeard + std::chrono::seconds(m_patienceSeconds) - Clock::now();
      if (left <= Clock::duration::zero()) {
        end = WaitEnd::kSilent;
        break;
      }
      timeout = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
    }
    const int result = KelMsgBBAPI::WaitingLoop(m_communicatorId, timeout, m_waitFlag);
    if (result != KELBUS_OK && result != KELBUS_ERR_TIMEOUT) {
      end = WaitEnd::kBusLost;
      break;
    }
  }
  m_awaited.clear();
  return end;
}

std::string KelMsgVerifiedTransfer::Parts::Silence() const {
  return " within " + std::to_string(m_patienceSeconds) + " s";
}

bool KelMsgVerifiedTransfer::Parts::Conclude(bool verified, const std::string& line) {
  m_lastReport.BuildFromUTF8(line.c_str());
  return verified;
}

void KelMsgVerifiedTransfer::Parts::Progress(int bytes) const {
  if (m_progress)
    m_progress(bytes);
}

void KelMsgVerifiedTransfer::Parts::Log(const std::string& line) const {
  if (m_report == nullptr)
    return;
  std::fprintf(m_report, "%s\n", line.c_str());
  std::fflush(m_report);
}

bool KelMsgVerifiedTransfer::Parts::Push(const char* sourceBaseDir, const char* sourceJobDir,
                                         const char* sourceFileName, const char* target,
                                         const char* targetBaseDir, const char* targetJobDir,
                                         const char* targetFileName, bool wait) {
  const Parties parties{"", target, ShownName(sourceJobDir, sourceFileName),
                        ShownName(targetJobDir, targetFileName)};
  m_sent = std::make_unique<KelMsgByteTally>();
  const char* self = m_application.c_str();
  m_engine.SendNotifyAndContent(self, sourceBaseDir, sourceJobDir, sourceFileName, target,
                                targetBaseDir, targetJobDir, targetFileName);
  const Receipt sent = m_sent->Receipt();
  SendReceipt(target, KelMsgTransferReceiptType::RECEIPT_SENT, sourceFileName, sent);
  if (!wait) {
    m_engine.SendISendCompletion(target);
    if (sent.m_failure != Receipt::FAILURE_NONE)
      return Conclude(false, Verdict(parties, &sent, sent));
    return Conclude(true, "sent " + parties.source + " to " + parties.receiver + ": " +
                              Count(sent.m_bytes) + " bytes, left for " + target + " to verify");
  }
  m_engine.SendSendCompletion(self, target);
  m_receipt.reset();
  m_waitFlag = kWaiting;
  m_onlyPeer = target;
  m_onlyWhy = "pushing to ";
  const WaitEnd end = WaitForPeer(target);
  m_onlyPeer.clear();
  switch (end) {
    case WaitEnd::kSilent:
      return Conclude(false,
                      "no receipt from " + parties.receiver + " for " + parties.target + Silence());
    case WaitEnd::kBusLost:
      return Conclude(false, std::string("lost the bus: ") + KelBusLastError());
    case WaitEnd::kEnded:
      break;
  }
  if (!m_receipt) {
    return Conclude(false, parties.receiver + " left the bus before confirming " + parties.target);
  }
  const std::string verdict = Verdict(parties, &sent, *m_receipt);
  if (!verdict.empty())
    return Conclude(false, verdict);
  return Conclude(true, parties.target + ": " + Count(sent.m_bytes) + " bytes, verified by " +
                            parties.receiver);
}

bool KelMsgVerifiedTransfer::Parts::Pull(const char* source, const char* sourceBaseDir,
                                         const char* sourceJobDir, const char* sourceFileName,
                                         const char* targetBaseDir, const char* targetJobDir,
                                         const char* targetFileName) {
  m_onlyPeer = source;
  m_onlyWhy = "pulling from ";
  SendReceipt(source, KelMsgTransferReceiptType::RECEIPT_ASK, sourceFileName, Receipt());
  const Inbound& inbound = Expect(source,
                                  {source, "", ShownName(sourceJobDir, sourceFileName),
                                   ShownName(targetJobDir, targetFileName)},
                                  targetBaseDir, targetJobDir, targetFileName, true);
  m_waitFlag = kWaiting;
  m_engine.RequestFile(source, sourceBaseDir, sourceJobDir, sourceFileName, m_application.c_str(),
                       targetBaseDir, targetJobDir, inbound.partialName.c_str());
  const WaitEnd end = WaitForPeer(source);
  if (end != WaitEnd::kEnded) {
    // Give up this side's end of the transfer as a completion would.
    Find(source)->written.Fail(Receipt::FAILURE_ABANDONED,
                               end == WaitEnd::kSilent
                                   ? (std::string(source) + " sent nothing" + Silence()).c_str()
                                   : (std::string("lost the bus: ") + KelBusLastError()).c_str());
    m_engine.ReceiveISendCompletion(source);
    Finish(source);
  }
  m_onlyPeer.clear();
  return m_pullVerified;
}

void KelMsgVerifiedTransfer::Parts::IdleFilesClosed() {
  std::vector<std::string> closed;
  for (const auto& [source, inbound] : m_inbound) {
    if (inbound.closed)
      closed.push_back(source);
  }
  for (const std::string& source : closed)
    Finish(source);
}

KelMsgVerifiedTransfer::KelMsgVerifiedTransfer(int communicatorId, const char* application,
                                               FILE* traceStream, int traceLevel, FILE* report)
    : m_parts(
          std::make_unique<Parts>(communicatorId, application, traceStream, traceLevel, report)) {}

KelMsgVerifiedTransfer::~KelMsgVerifiedTransfer() = default;

void KelMsgVerifiedTransfer::SetPatience(int seconds) {
  m_parts->m_patienceSeconds = seconds;
}

void KelMsgVerifiedTransfer::SetKeepPartial(bool keep) {
  m_parts->m_keepPartial = keep;
}

void KelMsgVerifiedTransfer::SetProgressListener(std::function<void(int bytes)> listener) {
  m_parts->m_progress = std::move(listener);
}

const KelMsgBBDisconnectHandler& KelMsgVerifiedTransfer::DepartureWatcher() const {
  return m_parts->Departures();
}

bool KelMsgVerifiedTransfer::Push(const char* sourceBaseDir, const char* sourceJobDir,
                                  const char* sourceFileName, const char* targetApplication,
                                  const char* targetBaseDir, const char* targetJobDir,
                                  const char* targetFileName, bool wait) {
  return m_parts->Push(sourceBaseDir, sourceJobDir, sourceFileName, targetApplication,
                       targetBaseDir, targetJobDir, targetFileName, wait);
}

bool KelMsgVerifiedTransfer::Pull(const char* sourceApplication, const char* sourceBaseDir,
                                  const char* sourceJobDir, const char* sourceFileName,
                                  const char* targetBaseDir, const char* targetJobDir,
                                  const char* targetFileName) {
  return m_parts->Pull(sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                       targetBaseDir, targetJobDir, targetFileName);
}

int KelMsgVerifiedTransfer::ConfineTo(const char* directory) {
  return m_parts->Engine().ConfineTo(directory);
}

void KelMsgVerifiedTransfer::SetReceiveLimits(int maxOpenFiles, int idleSeconds) {
  m_parts->Engine().SetReceiveLimits(maxOpenFiles, idleSeconds);
}

void KelMsgVerifiedTransfer::CloseIdleTransfers() {
  m_parts->Engine().CloseIdleFiles();
}

const KelString& KelMsgVerifiedTransfer::Report() const {
  return m_parts->m_lastReport;
}
