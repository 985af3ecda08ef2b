#include "tools/Operations.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <set>

namespace vymm {

const char kServiceName[] = "Vymedia.monitor";

namespace {

using Args = std::vector<TypedArg>;

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
    for (const Operation& op : Operations()) {
        if (byNumber ? op.number == number : strcasecmp(op.name, opWord.c_str()) == 0) {
            named.push_back(&op);
        }
    }
    return named;
}

// Letters to change, add or drop to turn a into b, in any case.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const bool same = tolower(static_cast<unsigned char>(a[i - 1])) ==
                              tolower(static_cast<unsigned char>(b[j - 1]));
            const size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = row[j];
            row[j] = next;
        }
    }
    return row[b.size()];
}

// The names closest to a misspelt one, a third of its letters off at most.
std::string NearestNames(const std::string& word) {
    std::set<std::string> names;
    size_t best = word.size() / 3 + 1;
    for (const Operation& op : Operations()) {
        const size_t distance = EditDistance(word, op.name);
        if (distance < best) {
            names.clear();
            best = distance;
        }
        if (distance == best) {
            names.insert(op.name);
        }
    }
    std::string out;
    for (const std::string& name : names) {
        out += (out.empty() ? "" : " or ") + name;
    }
    return out;
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
        const std::string nearest = NearestNames(opWord);
        resolution.error = "unknown operation \"" + opWord + "\"" +
                           (nearest.empty() ? "" : "; did you mean " + nearest + "?") +
                           " (see vymm list)";
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
