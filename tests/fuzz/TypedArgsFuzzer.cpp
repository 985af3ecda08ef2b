// Feeds arbitrary words, NUL-separated, to the tools' typed-argument parser.
// What it accepts must read back the same once written out again as words,
// and what it refuses must say why.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/Operations.h"

namespace {

// The words that say args.
std::vector<std::string> Words(const std::vector<vymm::TypedArg>& args) {
    std::vector<std::string> words;
    for (const vymm::TypedArg& arg : args) {
        switch (arg.type) {
            case vymm::TypedArg::I32:
                words.insert(words.end(), {"i32", std::to_string(arg.number)});
                break;
            case vymm::TypedArg::S8:
                words.insert(words.end(), {"s8", arg.text});
                break;
            case vymm::TypedArg::NUL:
                words.push_back("null");
                break;
        }
    }
    return words;
}

bool Same(const std::vector<vymm::TypedArg>& a, const std::vector<vymm::TypedArg>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
        return x.type == y.type && x.number == y.number && x.text == y.text;
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words;
    for (size_t start = 0; start <= input.size();) {
        const size_t end = std::min(input.find('\0', start), input.size());
        words.push_back(input.substr(start, end - start));
        start = end + 1;
    }
    std::vector<vymm::TypedArg> args;
    std::string error;
    if (!vymm::ParseTypedArgs(words, 0, &args, &error)) {
        if (error.empty()) {
            __builtin_trap();
        }
        return 0;
    }
    std::vector<vymm::TypedArg> again;
    if (!vymm::ParseTypedArgs(Words(args), 0, &again, &error) || !Same(args, again)) {
        __builtin_trap();
    }
    return 0;
}
