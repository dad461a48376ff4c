// KelBasXmlNode: a read-only view of one element of a parsed XML document.
//
// A node is a small handle into the KelBasXmlDocument that produced it.  It is
// valid while that document lives and has not read another text; using it
// afterwards is undefined.  A default-constructed node is empty: its name,
// attributes and text are all empty.  Strings handed out are copies and
// outlive the document.
#ifndef KELMSGFEAMESSAGING_KELBASXMLNODE_H_
#define KELMSGFEAMESSAGING_KELBASXMLNODE_H_

#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelBasXmlNode {
 public:
  KelBasXmlNode() noexcept = default;

  // True when the node views no element.
  bool IsEmpty() const noexcept { return m_node == nullptr; }
  // The element's tag name exactly as written, namespace prefix included.
  KelString GetTagName() const;
  // The element's attributes, name to value, with the predefined entities
  // and character references of the values resolved.
  KelBasTreeGeneric<KelString> GetAttributes() const;
  // The concatenated text of every text and CDATA section inside the element,
  // at any depth, in document order; comments and markup contribute nothing.
  KelString GetTextContent() const;

 private:
  friend class KelBasXmlDocument;
  explicit KelBasXmlNode(void* node) noexcept : m_node(node) {}

  void* m_node = nullptr;  // the parser's element; owned by the document
};

#endif  // KELMSGFEAMESSAGING_KELBASXMLNODE_H_
