// KelBasXmlDocument: parses one XML text held in memory.
//
// Parsing is self-contained: a document type declaration is skipped, never
// read, so no external subset, file or network resource is touched, and no
// entity is expanded except the five predefined ones (&lt; &gt; &amp; &apos;
// &quot;) and character references.  Any other entity reference stays in the
// text as written.  Beyond what the parser itself checks, a text is refused
// when it has no root element or more than one, or when an element repeats an
// attribute name.
//
// A document is used by one thread at a time; distinct documents are
// independent.
#ifndef KELMSGFEAMESSAGING_KELBASXMLDOCUMENT_H_
#define KELMSGFEAMESSAGING_KELBASXMLDOCUMENT_H_

#include <memory>

#include <KelMsgFeaMessaging/KelBasResult.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelBasXmlDocument {
 public:
  KelBasXmlDocument();
  ~KelBasXmlDocument();
  KelBasXmlDocument(const KelBasXmlDocument&) = delete;
  KelBasXmlDocument& operator=(const KelBasXmlDocument&) = delete;

  // Parses `text` as UTF-8, whatever its declaration names, replacing any
  // earlier document (nodes taken from it become invalid).  Returns S_OK when
  // the text is accepted, E_FAIL otherwise; after E_FAIL the document is
  // empty.
  int ReadString(const KelString& text);
  // The root element of the last accepted text; an empty node when the
  // document is empty.
  KelBasXmlNode GetRootElement() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

#endif  // KELMSGFEAMESSAGING_KELBASXMLDOCUMENT_H_
