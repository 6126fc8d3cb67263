// Text from a device, made safe to show: an application chose its names and identifiers, and
// bytes that steer a terminal (an escape sequence can retitle it, clear it or move the
// cursor to forge a line) must reach neither a terminal nor a log that a terminal will show.
#pragma once

#include <string>
#include <string_view>

namespace vx {

// The text with each control character (C0, DEL, C1 and the bidirectional controls, byte by
// byte) and each byte that is not part of valid UTF-8 written as "\x1b", a line feed, carriage return and tab as "\n", "\r" and "\t",
// and a backslash as "\\", so that what is shown reads back to the bytes unambiguously.
// Printable ASCII and valid UTF-8 pass unchanged.
std::string EscapedText(std::string_view text);
// True when EscapedText would give `text` back unchanged: lets a writer of many names skip
// the copy for the ordinary ones.
bool ShownUnchanged(std::string_view text);

}  // namespace vx
