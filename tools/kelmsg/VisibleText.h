// What peers send, made safe for a terminal: control characters (C0, DEL,
// C1) and bytes that are not UTF-8 become visible escapes such as \x1b, so
// that no peer can move the cursor, retitle the window or hide a line.
#ifndef KELMSG_TOOLS_KELMSG_VISIBLETEXT_H_
#define KELMSG_TOOLS_KELMSG_VISIBLETEXT_H_

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

enum class LineBreaks { kEscape, kKeep };

// `text` with every byte of a control character or of invalid UTF-8 as \xNN;
// line breaks too unless kept.
std::string VisibleText(std::string_view text, LineBreaks lineBreaks);

// What `print` writes into the stdio stream it is given.
std::string Printed(const std::function<void(std::FILE*)>& print);

#endif  // KELMSG_TOOLS_KELMSG_VISIBLETEXT_H_
