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

// A decimal number from 0 to max, nothing else.
bool ParseCount(const std::string& word, long long max, long long* value);

// One line's words (not empty) as a step; false with the reason in error.
bool ParseStep(const std::vector<std::string>& words, TraceStep* step, std::string* error);

// The steps of the trace; false at the first malformed line, with
// "NAME:LINE: ..." (and the expected signatures for a call) in error.
bool ParseTrace(std::istream& in, const std::string& name, std::vector<TraceStep>* steps,
                std::string* error);

}  // namespace vymm

#endif
