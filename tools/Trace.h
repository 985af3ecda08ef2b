// Traces for `vymm replay`: one step a line, read whole before anything is
// sent. A line is a call in the words of `vymm call` (OP ARG...), `sleep MS`
// or `as UID` (the following calls come from that uid); `#` starts a
// comment; a text with blanks is written in double quotes.
#ifndef VYMM_TOOLS_TRACE_H
#define VYMM_TOOLS_TRACE_H

#include <stdint.h>
#include <sys/types.h>

#include <istream>
#include <string>
#include <vector>

#include "tools/Operations.h"

namespace vymm {

struct TraceStep {
    enum Kind { CALL, SLEEP, AS };
    Kind kind = CALL;
    int line = 0;                     // in the file, from 1
    const Operation* op = nullptr;    // CALL
    std::vector<TypedArg> args;       // CALL
    int64_t sleepMs = 0;              // SLEEP
    uid_t uid = 0;                    // AS
};

// The longest sleep a trace may ask for: a day.
constexpr int64_t kMaxSleepMs = 24LL * 3600 * 1000;

// A decimal number from 0 to max, nothing else.
bool ParseCount(const std::string& word, long long max, long long* value);

// The steps of the trace; false at the first malformed line, with
// "NAME:LINE: ..." (and the expected signatures for a call) in error.
bool ParseTrace(std::istream& in, const std::string& name, std::vector<TraceStep>* steps,
                std::string* error);

}  // namespace vymm

#endif
