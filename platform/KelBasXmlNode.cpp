#include <KelMsgFeaMessaging/KelBasXmlNode.h>

#include <string>

#include <pugixml.hpp>

namespace {

pugi::xml_node View(void* node) {
  return pugi::xml_node(static_cast<pugi::xml_node_struct*>(node));
}

// Walks the subtree without recursion, so nesting depth costs no stack.
class TextCollector : public pugi::xml_tree_walker {
 public:
  bool for_each(pugi::xml_node& node) override {
    if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata)
      m_text += node.value();
    return true;
  }
  const std::string& Text() const { return m_text; }

 private:
  std::string m_text;
};

}  // namespace

KelString KelBasXmlNode::GetTagName() const {
  return KelString(View(m_node).name());
}

KelBasTreeGeneric<KelString> KelBasXmlNode::GetAttributes() const {
  KelBasTreeGeneric<KelString> attributes;
  for (const pugi::xml_attribute& attribute : View(m_node).attributes()) {
    attributes.emplace(KelString(attribute.name()), KelString(attribute.value()));
  }
  return attributes;
}

KelString KelBasXmlNode::GetTextContent() const {
  TextCollector collector;
  View(m_node).traverse(collector);
  return KelString(collector.Text().c_str());
}
