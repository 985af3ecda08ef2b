// Feeds arbitrary text to the tools' trace parser as a trace file. A trace it
// accepts holds only calls whose arguments fit their operation, sleeps
// within the bound, in the order of their lines; one it refuses names the
// file and the line. Each call it reads, and a call of every operation with
// the input as its texts, written as the service's capture writes calls,
// reads back as the same call.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tools/Trace.h"

namespace {

bool Fits(const vymm::Param& param, vymm::TypedArg::Type type) {
    switch (param.kind) {
        case vymm::ParamKind::INT:
            return type == vymm::TypedArg::I32;
        case vymm::ParamKind::C_STRING:
            return type == vymm::TypedArg::S8 || type == vymm::TypedArg::NUL;
        case vymm::ParamKind::STRING8:
            return type == vymm::TypedArg::S8;
    }
    return false;
}

bool WellFormed(const vymm::TraceStep& step) {
    switch (step.kind) {
        case vymm::TraceStep::CALL:
            return step.op != nullptr &&
                   std::equal(step.op->params.begin(), step.op->params.end(), step.args.begin(),
                              step.args.end(), [](const vymm::Param& param, const auto& arg) {
                                  return Fits(param, arg.type);
                              });
        case vymm::TraceStep::SLEEP:
            return step.sleepMs >= 0 && step.sleepMs <= vymm::kMaxSleepMs;
        case vymm::TraceStep::AS:
            return true;
    }
    return false;
}

bool SameCall(const vymm::TraceStep& step, const vymm::Operation& op,
              const std::vector<vymm::TypedArg>& args) {
    return step.kind == vymm::TraceStep::CALL && step.op == &op &&
           std::equal(args.begin(), args.end(), step.args.begin(), step.args.end(),
                      [](const auto& x, const auto& y) {
                          return x.type == y.type && x.number == y.number && x.text == y.text;
                      });
}

void CheckRoundTrip(const vymm::Operation& op, const std::vector<vymm::TypedArg>& args) {
    std::istringstream in(vymm::FormatCall(op, args) + "\n");
    std::vector<vymm::TraceStep> steps;
    std::string error;
    if (!vymm::ParseTrace(in, "capture", &steps, &error) || steps.size() != 1 ||
        !SameCall(steps[0], op, args)) {
        __builtin_trap();
    }
}

// Every operation called with text in each string (null for a C string
// when text is empty) and number in each integer.
void CheckEveryOperationWith(const std::string& text, int32_t number) {
    for (const vymm::Operation& op : vymm::Operations()) {
        std::vector<vymm::TypedArg> args;
        for (const vymm::Param& param : op.params) {
            if (param.kind == vymm::ParamKind::INT) {
                args.push_back({vymm::TypedArg::I32, number, {}});
            } else if (param.kind == vymm::ParamKind::C_STRING && text.empty()) {
                args.push_back({vymm::TypedArg::NUL, 0, {}});
            } else {
                args.push_back({vymm::TypedArg::S8, 0, text});
            }
        }
        CheckRoundTrip(op, args);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckEveryOperationWith(text, -static_cast<int32_t>(size));
    std::istringstream in(text);
    std::vector<vymm::TraceStep> steps;
    std::string error;
    if (!vymm::ParseTrace(in, "fuzz", &steps, &error)) {
        if (error.rfind("fuzz:", 0) != 0) {
            __builtin_trap();
        }
        return 0;
    }
    int line = 0;
    for (const vymm::TraceStep& step : steps) {
        if (step.line <= line || !WellFormed(step)) {
            __builtin_trap();
        }
        if (step.kind == vymm::TraceStep::CALL) {
            CheckRoundTrip(*step.op, step.args);
        }
        line = step.line;
    }
    return 0;
}
