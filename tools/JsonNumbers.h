// Numbers read out of JSON that a file or another program wrote: a missing
// or mistyped field reads as 0, never as an exception. Plain functions.
#ifndef VYMM_TOOLS_JSON_NUMBERS_H
#define VYMM_TOOLS_JSON_NUMBERS_H

#include <string>

#include <nlohmann/json.hpp>

namespace vymm {

// The number at pointer ("/queue/depth") in value, else 0.
inline double NumberAt(const nlohmann::json& value, const std::string& pointer) {
    const nlohmann::json::json_pointer at(pointer);
    return value.contains(at) && value.at(at).is_number() ? value.at(at).get<double>() : 0;
}

}  // namespace vymm

#endif
