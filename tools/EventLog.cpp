#include "tools/EventLog.h"

#include <nlohmann/json.hpp>

namespace vymm {

namespace {

using nlohmann::json;

const char* const kKinds[] = {"int", "float", "str", "obj"};

bool FormatObject(const json& event, std::string* text);

bool FormatValue(const std::string& kind, const json& value, std::string* text) {
    if (kind == "obj") {
        return FormatObject(value, text);
    }
    if ((kind == "str" && !value.is_string()) ||
        (kind != "str" && !value.is_number() && !value.is_null())) {
        return false;
    }
    *text += value.dump();
    return true;
}

// One parameter: its key, and its kind as a single value or a list.
bool FormatParam(const json& param, std::string* text) {
    if (!param.is_object()) {
        return false;
    }
    if (param.contains("name") && param["name"].is_string()) {
        *text += param["name"].get<std::string>();
    } else if (param.contains("paramId") && param["paramId"].is_number_unsigned()) {
        *text += "#" + param["paramId"].dump();
    } else {
        return false;
    }
    *text += "=";
    for (const char* kind : kKinds) {
        if (param.contains(kind)) {
            return FormatValue(kind, param[kind], text);
        }
        const std::string listKey = std::string(kind) + "s";
        if (!param.contains(listKey)) {
            continue;
        }
        const json& list = param[listKey];
        if (!list.is_array()) {
            return false;
        }
        *text += "[";
        for (size_t i = 0; i < list.size(); ++i) {
            *text += i > 0 ? ", " : "";
            if (!FormatValue(kind, list[i], text)) {
                return false;
            }
        }
        *text += "]";
        return true;
    }
    return false;
}

bool FormatFields(const json& event, std::string* text) {
    if (!event.is_object() || !event.contains("id") || !event["id"].is_number_unsigned() ||
        !event.contains("params") || !event["params"].is_array()) {
        return false;
    }
    *text += event["id"].dump();
    if (event.contains("time")) {
        *text += " time=" + event["time"].dump();
    }
    if (event.contains("paths")) {
        *text += " paths=" + event["paths"].dump();
    }
    for (const json& param : event["params"]) {
        *text += " ";
        if (!FormatParam(param, text)) {
            return false;
        }
    }
    return true;
}

bool FormatObject(const json& event, std::string* text) {
    *text += "{";
    if (!FormatFields(event, text)) {
        return false;
    }
    *text += "}";
    return true;
}

}  // namespace

bool FormatEvent(const std::string& jsonLine, std::string* text) {
    text->clear();
    const json event = json::parse(jsonLine, nullptr, /*allow_exceptions=*/false);
    return !event.is_discarded() && FormatFields(event, text);
}

}  // namespace vymm
