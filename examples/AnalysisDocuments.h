// The small XML documents the monitor and the solver exchange as analysis
// messages: the root element names the kind ("SolverReady", "Run",
// "Progress", "Finished"), attributes carry the details.
#ifndef KELMSG_EXAMPLES_ANALYSISDOCUMENTS_H_
#define KELMSG_EXAMPLES_ANALYSISDOCUMENTS_H_

#include <functional>
#include <string>

#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

using Attributes = KelBasTreeGeneric<KelString>;

// "<Kind name1="value1" .../>" with the values escaped.
std::string MakeDocument(const std::string& kind,
                         std::initializer_list<std::pair<const char*, std::string>> attributes);

// The value of `name`, or "" when the document has none.
std::string AttributeOf(const Attributes& attributes, const char* name);

// Hands the kind and the attributes of every analysis message to a function.
class DocumentHandler : public KelMsgBBMessageHandler {
 public:
  using Receiver = std::function<void(const std::string& kind, const Attributes& attributes)>;
  explicit DocumentHandler(Receiver receiver) : m_receiver(std::move(receiver)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  Receiver m_receiver;
};

#endif  // KELMSG_EXAMPLES_ANALYSISDOCUMENTS_H_
