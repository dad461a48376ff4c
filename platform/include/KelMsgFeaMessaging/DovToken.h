// DovToken: splits a text into tokens at separator characters.
//
// Runs of separators count as one, and separators before the first token are
// skipped, so a token is never empty: "500,,600" split at "," yields "500"
// and "600", and ",7" yields "7".  Once the text is used up every further
// token is empty.  Separators are whole UTF-8 characters; any character of
// the separator string ends a token.
//
// The tokenizer keeps a shared copy of the text; it is not to be used from
// two threads at once.
#ifndef KELMSGFEAMESSAGING_DOVTOKEN_H_
#define KELMSGFEAMESSAGING_DOVTOKEN_H_

#include <KelMsgFeaMessaging/DovUnicodeString.h>

class DovToken {
 public:
  // `mode` selects how tokens are split; 0, the only mode there is, splits as
  // described above.  Any other value ends the process.
  DovToken(const DovUnicodeString& text, unsigned char mode);

  // The next token, up to the next character of `separators` or the end of
  // the text; empty when no token is left.  When `found` is not null it
  // receives the separator character that ended the token, or an empty
  // string when the token ended with the text.
  DovUnicodeString GetNextToken(const DovUnicodeString& separators, DovUnicodeString* found);

 private:
  DovUnicodeString m_text;
  int m_position = 0;  // byte offset of the first character not yet read
};

#endif  // KELMSGFEAMESSAGING_DOVTOKEN_H_
