#include "tools/Operations.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <strings.h>

using android::IVyMediaMonitorService;
using android::String8;

namespace vymm {

const char kServiceName[] = "Vymedia.monitor";

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

const std::vector<Operation> kOperations = {
    {1, "ForceLogSend", {I("type")},
     [](IVyMediaMonitorService& s, const Args& a) { s.ForceLogSend(In(a, 0)); }},
    {2, "WriteLogMsg", {I("prior"), I("type"), C("msg")},
     [](IVyMediaMonitorService& s, const Args& a) { s.WriteLogMsg(In(a, 0), In(a, 1), Cs(a, 2)); }},
    {3, "WriteMediaBigData", {I("pid"), I("type"), C("msg")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteMediaBigData(In(a, 0), In(a, 1), Cs(a, 2));
     }},
    {4, "WriteLogMsg",
     {I("eventId"), I("eventLevel"), I("subType"), S("reason"), S("callingApp")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteLogMsg(In(a, 0), In(a, 1), In(a, 2), S8(a, 3), S8(a, 4));
     }},
    {5, "WriteLogMsg",
     {I("eventId"), I("eventLevel"), I("subType"), S("reason"), S("callingApp"), I("paraInt"),
      S("paraChar"), I("associatedEventId")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteLogMsg(In(a, 0), In(a, 1), In(a, 2), S8(a, 3), S8(a, 4), In(a, 5), S8(a, 6),
                       In(a, 7));
     }},
    {6, "WriteKpis", {S("kpis")},
     [](IVyMediaMonitorService& s, const Args& a) { s.WriteKpis(S8(a, 0)); }},
    {7, "WriteBigData", {I("eventId"), C("s1"), I("i1"), I("i2")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3));
     }},
    {8, "WriteBigData", {I("eventId"), C("s1"), C("s2"), I("i1"), I("i2")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), In(a, 3), In(a, 4));
     }},
    {9, "WriteBigData", {I("eventId"), C("s1"), C("s2"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), In(a, 3));
     }},
    {10, "WriteBigData", {I("eventId"), C("s1"), I("i1"), I("i2"), I("i3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3), In(a, 4));
     }},
    {11, "WriteBigData", {I("eventId"), C("s1"), C("s2"), C("s3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3));
     }},
    {12, "WriteBigData", {I("eventId"), C("s1"), C("s2"), C("s3"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), In(a, 4));
     }},
    {13, "WriteBigData", {I("eventId"), C("s1"), I("i1"), I("i2"), I("i3"), I("i4")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), In(a, 2), In(a, 3), In(a, 4), In(a, 5));
     }},
    {14, "WriteBigData",
     {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), I("i1"), I("i2"), I("i3")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), In(a, 5), In(a, 6),
                        In(a, 7));
     }},
    {15, "WriteBigData", {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), C("s5"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), Cs(a, 5), In(a, 6));
     }},
    {16, "WriteBigData",
     {I("eventId"), C("s1"), C("s2"), C("s3"), C("s4"), C("s5"), C("s6"), I("i1")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.WriteBigData(In(a, 0), Cs(a, 1), Cs(a, 2), Cs(a, 3), Cs(a, 4), Cs(a, 5), Cs(a, 6),
                        In(a, 7));
     }},
    {17, "MonitorSetForceUse", {I("usage"), I("config")},
     [](IVyMediaMonitorService& s, const Args& a) { s.MonitorSetForceUse(In(a, 0), In(a, 1)); }},
    {18, "MonitorBroadcastStream", {I("state"), I("stream")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorBroadcastStream(In(a, 0), In(a, 1));
     }},
    {19, "MonitorBroadcastDevice", {I("device")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorBroadcastDevice(static_cast<uint32_t>(In(a, 0)));
     }},
    {20, "MonitorVolumeIndex", {I("source"), I("index"), I("device")},
     [](IVyMediaMonitorService& s, const Args& a) {
         s.MonitorVolumeIndex(In(a, 0), In(a, 1), In(a, 2));
     }},
    {21, "MonitorPlayingApp", {C("app")},
     [](IVyMediaMonitorService& s, const Args& a) { s.MonitorPlayingApp(Cs(a, 0)); }},
};

bool ParseI32(const std::string& word, int32_t* number) {
    const bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    if (word.empty() || isspace(static_cast<unsigned char>(word[0]))) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(word.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || value < INT32_MIN || value > UINT32_MAX) {
        return false;
    }
    *number = static_cast<int32_t>(static_cast<uint32_t>(value));
    return true;
}

bool Accepts(const Param& param, TypedArg::Type type) {
    switch (param.kind) {
        case ParamKind::INT:
            return type == TypedArg::I32;
        case ParamKind::C_STRING:
            return type == TypedArg::S8 || type == TypedArg::NUL;
        case ParamKind::STRING8:
            return type == TypedArg::S8;
    }
    return false;
}

// op's first parameters accept the types of args.
bool BeginsWith(const Operation& op, const Args& args) {
    if (args.size() > op.params.size()) {
        return false;
    }
    for (size_t i = 0; i < args.size(); ++i) {
        if (!Accepts(op.params[i], args[i].type)) {
            return false;
        }
    }
    return true;
}

// The arguments are the start of op's and only integers are missing: the
// overloads that a call short of trailing numbers was most likely meant for.
bool OnlyIntegersMissing(const Operation& op, const Args& args) {
    if (!BeginsWith(op, args)) {
        return false;
    }
    for (size_t i = args.size(); i < op.params.size(); ++i) {
        if (op.params[i].kind != ParamKind::INT) {
            return false;
        }
    }
    return true;
}

bool Matches(const Operation& op, const Args& args) {
    return op.params.size() == args.size() && BeginsWith(op, args);
}

const char* TypeWord(TypedArg::Type type) {
    switch (type) {
        case TypedArg::I32:
            return "i32";
        case TypedArg::S8:
            return "s8";
        case TypedArg::NUL:
            return "null";
    }
    return "?";
}

std::string TypeList(const Args& args) {
    std::string out = "(";
    for (size_t i = 0; i < args.size(); ++i) {
        out += (i > 0 ? ", " : "") + std::string(TypeWord(args[i].type));
    }
    return out + ")";
}

// The operations that opWord names: one by number, or a name's overloads.
std::vector<const Operation*> Named(const std::string& opWord) {
    std::vector<const Operation*> named;
    int32_t number = 0;
    const bool byNumber = ParseI32(opWord, &number);
    for (const Operation& op : kOperations) {
        if (byNumber ? op.number == number : strcasecmp(op.name, opWord.c_str()) == 0) {
            named.push_back(&op);
        }
    }
    return named;
}

}  // namespace

bool ParseTypedArgs(const std::vector<std::string>& words, size_t first,
                    std::vector<TypedArg>* args, std::string* error) {
    args->clear();
    for (size_t i = first; i < words.size(); ++i) {
        const std::string& type = words[i];
        if (type == "null") {
            args->push_back({TypedArg::NUL, 0, {}});
            continue;
        }
        if (type != "i32" && type != "s8") {
            *error = "unknown argument type \"" + type + "\": use i32 N, s8 TEXT or null";
            return false;
        }
        if (++i == words.size()) {
            *error = type + " at the end lacks its value";
            return false;
        }
        TypedArg arg{type == "i32" ? TypedArg::I32 : TypedArg::S8, 0, {}};
        if (arg.type == TypedArg::S8) {
            arg.text = words[i];
        } else if (!ParseI32(words[i], &arg.number)) {
            *error = "\"" + words[i] + "\" is no i32 (decimal or 0x hexadecimal, 32 bits)";
            return false;
        }
        args->push_back(std::move(arg));
    }
    return true;
}

const std::vector<Operation>& Operations() { return kOperations; }

std::string Signature(const Operation& op) {
    std::string out = std::string(op.name) + "(";
    for (size_t i = 0; i < op.params.size(); ++i) {
        const Param& param = op.params[i];
        const char* type = param.kind == ParamKind::INT        ? "i32"
                           : param.kind == ParamKind::C_STRING ? "s8?"
                                                               : "s8";
        out += (i > 0 ? ", " : "") + std::string(type) + " " + param.name;
    }
    return out + ")";
}

Resolution Resolve(const std::string& opWord, const Args& args) {
    Resolution resolution;
    const std::vector<const Operation*> named = Named(opWord);
    if (named.empty()) {
        resolution.error = "unknown operation \"" + opWord + "\" (see vymm list)";
        return resolution;
    }
    for (const Operation* op : named) {
        if (Matches(*op, args)) {
            resolution.op = op;
            return resolution;
        }
    }
    resolution.error = std::string(named.size() == 1 ? "" : "no ") + named[0]->name +
                       (named.size() == 1 ? " does not take " : " takes ") + TypeList(args);
    for (const Operation* op : named) {
        if (OnlyIntegersMissing(*op, args)) {
            resolution.candidates.push_back(op);
        }
    }
    if (resolution.candidates.empty()) {
        resolution.candidates = named;
    }
    return resolution;
}

Resolution ResolveByName(const std::string& opWord, const std::string& error) {
    Resolution resolution;
    resolution.candidates = Named(opWord);
    resolution.error = error;
    return resolution;
}

std::string Describe(const Resolution& resolution) {
    std::string out = resolution.error;
    if (!resolution.candidates.empty()) {
        out += resolution.candidates.size() == 1 ? "; expected:" : "; expected one of:";
    }
    for (const Operation* op : resolution.candidates) {
        const std::string number = std::to_string(op->number);
        out += "\n  " + std::string(3 - number.size(), ' ') + number + "  " + Signature(*op);
    }
    return out;
}

bool ParseCall(const std::vector<std::string>& words, size_t first, const Operation** op,
               Args* args, std::string* error) {
    if (first >= words.size()) {
        *error = "missing operation (see vymm list)";
        return false;
    }
    std::string argError;
    const Resolution resolution = ParseTypedArgs(words, first + 1, args, &argError)
                                          ? Resolve(words[first], *args)
                                          : ResolveByName(words[first], argError);
    *op = resolution.op;
    if (*op == nullptr) {
        *error = Describe(resolution);
    }
    return *op != nullptr;
}

}  // namespace vymm
