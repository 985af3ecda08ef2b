// The 21 operations of "Vymedia.monitor" as the command-line tools read them:
// typed words parsed, a call resolved to its overload, signatures to show.
// Plain data and functions; safe from any thread.
#ifndef VYMM_TOOLS_OPERATIONS_H
#define VYMM_TOOLS_OPERATIONS_H

#include <stdint.h>

#include <string>
#include <vector>

#include <VyMediaMonitorCalls.h>

namespace vymm {

// The name under which the service is published.
extern const char kServiceName[];

// Reads the typed words of words[first...]; false with a one-line error
// naming the word that is wrong. An i32 is decimal or 0x hexadecimal, from
// INT32_MIN to UINT32_MAX.
bool ParseTypedArgs(const std::vector<std::string>& words, size_t first,
                    std::vector<TypedArg>* args, std::string* error);

// "WriteBigData(i32 eventId, s8? s1, i32 i1)"; s8? takes s8 or null.
std::string Signature(const Operation& op);

// The operation that OP (a number or a name, in any case) with these
// arguments names. When there is none, error says why and candidates holds
// the signatures to show: a name's overloads that the arguments would fit
// with integers added at the end, else all of them.
struct Resolution {
    const Operation* op = nullptr;
    std::string error;
    std::vector<const Operation*> candidates;
};
Resolution Resolve(const std::string& opWord, const std::vector<TypedArg>& args);
// The same when the arguments themselves did not parse: every overload.
Resolution ResolveByName(const std::string& opWord, const std::string& error);

// The error and the candidates' signatures, one per line, indented.
std::string Describe(const Resolution& resolution);

// A call in words, "OP ARG...", from words[first]: its operation and
// arguments, or false with Describe's text in error.
bool ParseCall(const std::vector<std::string>& words, size_t first, const Operation** op,
               std::vector<TypedArg>* args, std::string* error);

}  // namespace vymm

#endif
