// Host build of the reporting library: every sent event becomes one JSON line
// appended to $VEXEL_EVENT_LOG, so tests and the demo see exactly what went
// out. A line is valid JSON in UTF-8 whatever bytes the caller's texts hold.
// Event ids listed in $VEXEL_REJECT_IDS (comma-separated) cannot be created;
// $VEXEL_SEND_DELAY_US makes each send take that many microseconds longer;
// $VEXEL_SEND_TIME=1 adds "sent_us", the wall-clock time of the send in
// microseconds, to each line (for `vymm timeline`).
#include <vexel.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// One parameter: the member that names it ("name" or "paramId") and one
// value, or a list of values for the fill-array calls.
struct Param {
    const char* keyField;
    Json key;
    std::string kind;
    bool isArray = false;
    std::vector<Json> values;
};

// Nine significant digits carry every float; the double read back from them
// prints as those digits.
Json FloatValue(float value) {
    if (!std::isfinite(value)) {
        return nullptr;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.9g", static_cast<double>(value));
    return strtod(text, nullptr);
}

constexpr char kNameField[] = "name";
constexpr char kIdField[] = "paramId";

Json RenderParam(const Param& param) {
    Json out;
    out[param.keyField] = param.key;
    if (param.isArray) {
        out[param.kind + "s"] = param.values;
    } else {
        out[param.kind] = param.values.front();
    }
    return out;
}

bool IsRejected(unsigned int eventId) {
    const char* list = getenv("VEXEL_REJECT_IDS");
    if (list == nullptr) {
        return false;
    }
    std::stringstream ids(list);
    std::string item;
    while (std::getline(ids, item, ',')) {
        if (!item.empty() && strtoul(item.c_str(), nullptr, 10) == eventId) {
            return true;
        }
    }
    return false;
}

// A slow upload channel, for tests and benchmarks of what waits on one.
void DelaySend() {
    const char* delay = getenv("VEXEL_SEND_DELAY_US");
    const long micros = delay != nullptr ? strtol(delay, nullptr, 10) : 0;
    if (micros > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(micros));
    }
}

}  // namespace

struct VexelEventObj {
    unsigned int id = 0;
    bool hasTime = false;
    long long time = 0;
    std::vector<std::string> paths;
    std::vector<Param> params;

    std::vector<Param>::iterator Find(const char* keyField, const Json& key, bool isArray) {
        return std::find_if(params.begin(), params.end(), [&](const Param& p) {
            return p.keyField == keyField && p.key == key && p.isArray == isArray;
        });
    }

    // A second set of the same key replaces the value in its first position.
    int Set(const char* keyField, Json key, const char* kind, Json value) {
        auto it = Find(keyField, key, false);
        if (it == params.end()) {
            it = params.insert(params.end(), Param{keyField, std::move(key), kind, false, {}});
        }
        it->kind = kind;
        it->values.assign(1, std::move(value));
        return 0;
    }

    int Fill(const char* keyField, Json key, const char* kind, Json value) {
        auto it = Find(keyField, key, true);
        if (it == params.end()) {
            it = params.insert(params.end(), Param{keyField, std::move(key), kind, true, {}});
        }
        it->values.push_back(std::move(value));
        return 0;
    }

    Json ToJson() const {
        Json out;
        out["id"] = id;
        if (hasTime) {
            out["time"] = time;
        }
        if (!paths.empty()) {
            out["paths"] = paths;
        }
        out["params"] = Json::array();
        for (const Param& param : params) {
            out["params"].push_back(RenderParam(param));
        }
        return out;
    }

    // One line of valid JSON in UTF-8 whatever bytes the texts hold: a byte
    // sequence that is not UTF-8 becomes U+FFFD.
    std::string ToLine() const {
        Json line = ToJson();
        const char* stamp = getenv("VEXEL_SEND_TIME");
        if (stamp != nullptr && std::string(stamp) == "1") {
            line["sent_us"] = std::chrono::duration_cast<std::chrono::microseconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count();
        }
        return line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    }
};

extern "C" {

VexelEventObj* vexel_create_eventobj(unsigned int eventId) {
    if (IsRejected(eventId)) {
        return nullptr;
    }
    VexelEventObj* obj = new VexelEventObj;
    obj->id = eventId;
    return obj;
}

int vexel_set_param(VexelEventObj* obj, unsigned short paramId, long value) {
    return obj == nullptr ? -1 : obj->Set(kIdField, paramId, "int", value);
}

int vexel_unset_param(VexelEventObj* obj, unsigned short paramId) {
    if (obj == nullptr) {
        return -1;
    }
    const auto it = obj->Find(kIdField, paramId, false);
    if (it == obj->params.end()) {
        return -1;
    }
    obj->params.erase(it);
    return 0;
}

int vexel_set_time(VexelEventObj* obj, long long time) {
    if (obj == nullptr) {
        return -1;
    }
    obj->hasTime = true;
    obj->time = time;
    return 0;
}

int vexel_add_dynamic_path(VexelEventObj* obj, const char* path) {
    if (obj == nullptr || path == nullptr) {
        return -1;
    }
    obj->paths.push_back(path);
    return 0;
}

int vexel_add_and_del_dynamic_path(VexelEventObj* obj, const char* path) {
    return vexel_add_dynamic_path(obj, path);
}

int vexel_send_event(VexelEventObj* obj) {
    if (obj == nullptr) {
        return -1;
    }
    DelaySend();
    const char* logPath = getenv("VEXEL_EVENT_LOG");
    if (logPath == nullptr || logPath[0] == '\0') {
        return 0;
    }
    const std::string line = obj->ToLine();
    const int fd = open(logPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    // One write per line keeps lines whole when several processes append.
    const ssize_t written = write(fd, line.data(), line.size());
    close(fd);
    return written == static_cast<ssize_t>(line.size()) ? 0 : -1;
}

void vexel_destroy_eventobj(VexelEventObj* obj) { delete obj; }

int vexel_set_param_integer_v2(VexelEventObj* obj, const char* name, long value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Set(kNameField, name, "int", value);
}

int vexel_fill_array_param_integer_v2(VexelEventObj* obj, const char* name, long value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Fill(kNameField, name, "int", value);
}

int vexel_set_param_float_v2(VexelEventObj* obj, const char* name, float value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Set(kNameField, name, "float", FloatValue(value));
}

int vexel_fill_array_param_float_v2(VexelEventObj* obj, const char* name, float value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Fill(kNameField, name, "float", FloatValue(value));
}

int vexel_set_param_string_v2(VexelEventObj* obj, const char* name, const char* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Set(kNameField, name, "str", value);
}

int vexel_fill_array_param_string_v2(VexelEventObj* obj, const char* name, const char* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Fill(kNameField, name, "str", value);
}

// A nested object is copied as it stands now; the caller may destroy it after.
int vexel_set_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Set(kNameField, name, "obj", value->ToJson());
}

int vexel_fill_array_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Fill(kNameField, name, "obj", value->ToJson());
}

}  // extern "C"
