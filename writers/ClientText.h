// Client text on its way into a record line, a dump or a log line: control
// characters are escaped (\n, \t, \xNN) so that one call gives one line, and
// a log line carries a bounded share of it. Text without control characters
// comes back unchanged. Plain functions; safe from any thread.
#ifndef VYMM_WRITERS_CLIENT_TEXT_H
#define VYMM_WRITERS_CLIENT_TEXT_H

#include <stddef.h>

#include <utils/String8.h>

namespace android {

// The most bytes of one client text that a log line carries.
constexpr size_t MAX_LOGGED_CLIENT_TEXT = 256;

// text with its control characters escaped; bytes of 0x80 and above are kept.
String8 EscapeClientText(const String8& text);
// The same for a log line: the first MAX_LOGGED_CLIENT_TEXT bytes, escaped.
String8 ClientTextForLog(const String8& text);

}  // namespace android

#endif
