#include "tools/Trace.h"

#include <errno.h>
#include <stdlib.h>

#include "tools/TextLines.h"

namespace vymm {

bool ParseCount(const std::string& word, long long max, long long* value) {
    if (word.empty() || word[0] < '0' || word[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    *value = strtoll(word.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && *value <= max;
}

bool ParseStep(const std::vector<std::string>& words, TraceStep* step, std::string* error) {
    const std::string& head = words[0];
    if (head != "sleep" && head != "as") {
        step->kind = TraceStep::CALL;
        return ParseCall(words, 0, &step->op, &step->args, error);
    }
    long long value = 0;
    const bool isSleep = head == "sleep";
    if (words.size() != 2 || !ParseCount(words[1], isSleep ? kMaxSleepMs : UINT32_MAX - 1,
                                         &value)) {
        *error = isSleep ? "expected: sleep MS (0 to " + std::to_string(kMaxSleepMs) + ")"
                         : std::string("expected: as UID (a number)");
        return false;
    }
    step->kind = isSleep ? TraceStep::SLEEP : TraceStep::AS;
    step->sleepMs = isSleep ? value : 0;
    step->uid = isSleep ? 0 : static_cast<uid_t>(value);
    return true;
}

bool ParseTrace(std::istream& in, const std::string& name, std::vector<TraceStep>* steps,
                std::string* error) {
    steps->clear();
    std::string line;
    std::vector<std::string> words;
    for (int number = 1; std::getline(in, line); ++number) {
        std::string lineError;
        if (!SplitWords(line, &words, &lineError)) {
            *error = LinePrefix(name, number) + lineError;
            return false;
        }
        if (words.empty()) {
            continue;
        }
        TraceStep step;
        step.line = number;
        if (!ParseStep(words, &step, &lineError)) {
            *error = LinePrefix(name, number) + lineError;
            return false;
        }
        steps->push_back(std::move(step));
    }
    return true;
}

}  // namespace vymm
