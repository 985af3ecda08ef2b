#include "VyMediaMonitorCalls.h"

#include <utility>

using android::IVyMediaMonitorService;
using android::String8;

namespace vymm {

namespace {

using Args = std::vector<TypedArg>;

constexpr Param I(const char* name) { return {ParamKind::INT, name}; }
constexpr Param C(const char* name) { return {ParamKind::C_STRING, name}; }
constexpr Param S(const char* name) { return {ParamKind::STRING8, name}; }

int32_t In(const Args& a, size_t i) { return a[i].number; }
const char* Cs(const Args& a, size_t i) {
    return a[i].type == TypedArg::NUL ? nullptr : a[i].text.c_str();
}
String8 S8(const Args& a, size_t i) { return String8(a[i].text.data(), a[i].text.size()); }

using Invoke = void (*)(IVyMediaMonitorService&, const Args&);

Operation Op(int number, std::vector<Param> params, Invoke invoke) {
    return {number, kOperationNames[number - 1], std::move(params), invoke};
}

const std::vector<Operation> kOperations = {
    Op(1, {I("type")},
     [](IVyMediaMonitorService& s, const Args& a) { s.ForceLogSend(In(a, 0)); }),
    Op(2, {I("prior"), I("type"), C("msg")},
     [](IVyMediaMonitorService& s, const Args& a) { s.WriteLogMsg(In(a, 0), In(a, 1), Cs(a, 2)); }),
    Op(3, {I("pid"), I("type"), C("msg")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteMediaBigData(In(a, 0), In(a, 1), Cs(a, 2));
     }),
    Op(4,
     {I("eventId"), I("eventLevel"), I("subType"), S("reason"), S("callingApp")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteLogMsg(In(a, 0), In(a, 1), In(a, 2), S8(a, 3), S8(a, 4));
     }),
    Op(5,
     {I("eventId"), I("eventLevel"), I("subType"), S("reason"), S("callingApp"), I("paraInt"),
      S("paraChar"), I("associatedEventId")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteLogMsg(In(a, 0), In(a, 1), In(a, 2), S8(a, 3), S8(a, 4), In(a, 5), S8(a, 6),
                       In(a, 7));
     }),
    Op(6, {S("kpis")},
     [](IVyMediaMonitorService& s, const Args& a) { s.WriteKpis(S8(a, 0)); }),
    Op(7, {I("eventId"), C("s1"), I("i1"), I("i2")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3));
     }),
    Op(8, {I("eventId"), C("s1"), C("s2"), I("i1"), I("i2")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), In(a, 3), In(a, 4));
     }),
    Op(9, {I("eventId"), C("s1"), C("s2"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), In(a, 3));
     }),
    Op(10, {I("eventId"), C("s1"), I("i1"), I("i2"), I("i3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3), In(a, 4));
     }),
    Op(11, {I("eventId"), C("s1"), C("s2"), C("s3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3));
     }),
    Op(12, {I("eventId"), C("s1"), C("s2"), C("s3"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), In(a, 4));
     }),
    Op(13, {I("eventId"), C("s1"), I("i1"), I("i2"), I("i3"), I("i4")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3), In(a, 4), In(a, 5));
     }),
    Op(14,
     {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), I("i1"), I("i2"), I("i3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), In(a, 5), In(a, 6),
                        In(a, 7));
     }),
    Op(15, {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), C("s5"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), Cs(a, 5), In(a, 6));
     }),
    Op(16,
     {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), C("s5"), C("s6"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), Cs(a, 5), Cs(a, 6),
                        In(a, 7));
     }),
    Op(17, {I("usage"), I("config")},
     [](IVyMediaMonitorService& s, const Args& a) { s.MonitorSetForceUse(In(a, 0), In(a, 1)); }),
    Op(18, {I("state"), I("stream")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorBroadcastStream(In(a, 0), In(a, 1));
     }),
    Op(19, {I("device")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorBroadcastDevice(static_cast<uint32_t>(In(a, 0)));
     }),
    Op(20, {I("source"), I("index"), I("device")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorVolumeIndex(In(a, 0), In(a, 1), In(a, 2));
     }),
    Op(21, {C("app")},
     [](IVyMediaMonitorService& s, const Args& a) { s.MonitorPlayingApp(Cs(a, 0)); }),
};

bool IsPlain(unsigned char c) { return c > ' ' && c < 0x7f && c != '"' && c != '\\'; }

void AppendEscaped(unsigned char c, std::string* out) {
    static constexpr char kHex[] = "0123456789abcdef";
    switch (c) {
        case '"':
        case '\\':
            *out += '\\';
            *out += static_cast<char>(c);
            return;
        case '\n':
            *out += "\\n";
            return;
        case '\t':
            *out += "\\t";
            return;
    }
    if (c >= ' ' && c < 0x7f) {
        *out += static_cast<char>(c);
        return;
    }
    *out += "\\x";
    *out += kHex[c >> 4];
    *out += kHex[c & 0xf];
}

}  // namespace

const std::vector<Operation>& Operations() { return kOperations; }

std::string QuoteWord(const std::string& text) {
    bool plain = !text.empty() && text[0] != '#';
    for (const char c : text) {
        plain = plain && IsPlain(static_cast<unsigned char>(c));
    }
    if (plain) {
        return text;
    }
    std::string out = "\"";
    for (const char c : text) {
        AppendEscaped(static_cast<unsigned char>(c), &out);
    }
    return out + "\"";
}

std::string FormatCall(const Operation& op, const std::vector<TypedArg>& args) {
    std::string out = op.name;
    for (const TypedArg& arg : args) {
        switch (arg.type) {
            case TypedArg::I32:
                out += " i32 " + std::to_string(arg.number);
                break;
            case TypedArg::S8:
                out += " s8 " + QuoteWord(arg.text);
                break;
            case TypedArg::NUL:
                out += " null";
                break;
        }
    }
    return out;
}

}  // namespace vymm
