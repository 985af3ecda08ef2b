// Feeds arbitrary text to the tools' trace parser as a trace file. A trace it
// accepts holds only calls whose arguments fit their operation, sleeps
// within the bound, in the order of their lines; one it refuses names the
// file and the line.
#include <stddef.h>
#include <stdint.h>

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
            if (step.op == nullptr || step.args.size() != step.op->params.size()) {
                return false;
            }
            for (size_t i = 0; i < step.args.size(); ++i) {
                if (!Fits(step.op->params[i], step.args[i].type)) {
                    return false;
                }
            }
            return true;
        case vymm::TraceStep::SLEEP:
            return step.sleepMs >= 0 && step.sleepMs <= vymm::kMaxSleepMs;
        case vymm::TraceStep::AS:
            return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
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
        line = step.line;
    }
    return 0;
}
