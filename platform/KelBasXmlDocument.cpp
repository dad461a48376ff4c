#include <KelMsgFeaMessaging/KelBasXmlDocument.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include <pugixml.hpp>

namespace {

// CDATA, escapes, end-of-line and attribute whitespace normalisation.  Without
// parse_doctype a DOCTYPE is skipped rather than kept; the parser knows no
// entities but the predefined ones and has no way to fetch anything from
// outside the text.
constexpr unsigned int kParseOptions = pugi::parse_default;

// Well-formedness rules the parser leaves unchecked.
class WellFormednessWalker : public pugi::xml_tree_walker {
 public:
  bool for_each(pugi::xml_node& node) override {
    if (node.type() == pugi::node_element && HasRepeatedAttribute(node))
      m_wellFormed = false;
    return m_wellFormed;
  }
  bool WellFormed() const { return m_wellFormed; }

 private:
  bool HasRepeatedAttribute(const pugi::xml_node& element) {
    m_names.clear();
    for (const pugi::xml_attribute& attribute : element.attributes()) {
      m_names.push_back(attribute.name());
    }
    const auto less = [](const char* a, const char* b) { return std::strcmp(a, b) < 0; };
    std::sort(m_names.begin(), m_names.end(), less);
    const auto same = [](const char* a, const char* b) { return std::strcmp(a, b) == 0; };
    return std::adjacent_find(m_names.begin(), m_names.end(), same) != m_names.end();
  }

  std::vector<const char*> m_names;  // reused from element to element
  bool m_wellFormed = true;
};

bool HasSingleRoot(const pugi::xml_document& document) {
  int elements = 0;
  for (const pugi::xml_node& child : document.children()) {
    if (child.type() == pugi::node_element)
      ++elements;
  }
  return elements == 1;
}

}  // namespace

struct KelBasXmlDocument::Impl {
  pugi::xml_document document;
};

KelBasXmlDocument::KelBasXmlDocument() : m_impl(std::make_unique<Impl>()) {}

KelBasXmlDocument::~KelBasXmlDocument() = default;

int KelBasXmlDocument::ReadString(const KelString& text) {
  pugi::xml_document& document = m_impl->document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(text.GetUTF8(), static_cast<std::size_t>(text.GetLengthInByte()),
                           kParseOptions, pugi::encoding_utf8);
  WellFormednessWalker walker;
  if (!parsed || !HasSingleRoot(document) || !document.traverse(walker)) {
    document.reset();
    return E_FAIL;
  }
  return S_OK;
}

KelBasXmlNode KelBasXmlDocument::GetRootElement() const {
  return KelBasXmlNode(m_impl->document.document_element().internal_object());
}
