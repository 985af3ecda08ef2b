#include "writers/ClientText.h"

#include <algorithm>

namespace android {

namespace {

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

String8 Escape(const char* text, size_t size) {
    if (std::none_of(text, text + size, [](char c) { return IsControl(c); })) {
        return String8(text, size);
    }
    String8 out;
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\n') {
            out.append("\\n");
        } else if (c == '\t') {
            out.append("\\t");
        } else if (IsControl(c)) {
            out.appendFormat("\\x%02x", c);
        } else {
            out.append(reinterpret_cast<const char*>(&c), 1);
        }
    }
    return out;
}

}  // namespace

String8 EscapeClientText(const String8& text) {
    return Escape(text.string(), text.length());
}

String8 ClientTextForLog(const String8& text) {
    return Escape(text.string(), std::min(text.length(), MAX_LOGGED_CLIENT_TEXT));
}

}  // namespace android
