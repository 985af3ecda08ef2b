// Host build of the reporting library: every sent event becomes one JSON line
// appended to $VEXEL_EVENT_LOG, so tests and the demo see exactly what went out.
// Event ids listed in $VEXEL_REJECT_IDS (comma-separated) cannot be created.
// $VEXEL_SEND_DELAY_US makes each send take that many microseconds longer, as
// a slow channel to the collector would.
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

namespace {

// One parameter: its key ("name" or "paramId") and one value, or a list of
// values for the fill-array calls. Values are kept already rendered as JSON.
struct Param {
    std::string key;
    std::string kind;
    bool isArray = false;
    std::vector<std::string> values;
};

std::string Quote(const char* text) {
    std::string out = "\"";
    for (const char* p = text; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string NameKey(const char* name) { return "\"name\":" + Quote(name); }

std::string IdKey(unsigned short paramId) { return "\"paramId\":" + std::to_string(paramId); }

std::string RenderFloat(float value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char text[32];
    snprintf(text, sizeof(text), "%.9g", static_cast<double>(value));
    return text;
}

std::string RenderParam(const Param& param) {
    std::string out = "{" + param.key + ",\"" + param.kind + (param.isArray ? "s\":[" : "\":");
    for (size_t i = 0; i < param.values.size(); ++i) {
        out += (i > 0 ? "," : "") + param.values[i];
    }
    return out + (param.isArray ? "]}" : "}");
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

void DelaySend() {
    const char* delay = getenv("VEXEL_SEND_DELAY_US");
    if (delay != nullptr) {
        std::this_thread::sleep_for(std::chrono::microseconds(strtoul(delay, nullptr, 10)));
    }
}

}  // namespace

struct VexelEventObj {
    unsigned int id = 0;
    bool hasTime = false;
    long long time = 0;
    std::vector<std::string> paths;
    std::vector<Param> params;

    std::vector<Param>::iterator Find(const std::string& key, bool isArray) {
        return std::find_if(params.begin(), params.end(), [&](const Param& p) {
            return p.key == key && p.isArray == isArray;
        });
    }

    // A second set of the same key replaces the value in its first position.
    int Set(const std::string& key, const char* kind, std::string value) {
        auto it = Find(key, false);
        if (it == params.end()) {
            it = params.insert(params.end(), Param{key, kind, false, {}});
        }
        it->kind = kind;
        it->values.assign(1, std::move(value));
        return 0;
    }

    int Fill(const std::string& key, const char* kind, std::string value) {
        auto it = Find(key, true);
        if (it == params.end()) {
            it = params.insert(params.end(), Param{key, kind, true, {}});
        }
        it->values.push_back(std::move(value));
        return 0;
    }

    std::string ToJson() const {
        std::string out = "{\"id\":" + std::to_string(id);
        if (hasTime) {
            out += ",\"time\":" + std::to_string(time);
        }
        if (!paths.empty()) {
            out += ",\"paths\":[";
            for (size_t i = 0; i < paths.size(); ++i) {
                out += (i > 0 ? "," : "") + paths[i];
            }
            out += "]";
        }
        out += ",\"params\":[";
        for (size_t i = 0; i < params.size(); ++i) {
            out += (i > 0 ? "," : "") + RenderParam(params[i]);
        }
        return out + "]}";
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
    return obj == nullptr ? -1 : obj->Set(IdKey(paramId), "int", std::to_string(value));
}

int vexel_unset_param(VexelEventObj* obj, unsigned short paramId) {
    if (obj == nullptr) {
        return -1;
    }
    const auto it = obj->Find(IdKey(paramId), false);
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
    obj->paths.push_back(Quote(path));
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
    const std::string line = obj->ToJson() + "\n";
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
    return obj->Set(NameKey(name), "int", std::to_string(value));
}

int vexel_fill_array_param_integer_v2(VexelEventObj* obj, const char* name, long value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Fill(NameKey(name), "int", std::to_string(value));
}

int vexel_set_param_float_v2(VexelEventObj* obj, const char* name, float value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Set(NameKey(name), "float", RenderFloat(value));
}

int vexel_fill_array_param_float_v2(VexelEventObj* obj, const char* name, float value) {
    if (obj == nullptr || name == nullptr) {
        return -1;
    }
    return obj->Fill(NameKey(name), "float", RenderFloat(value));
}

int vexel_set_param_string_v2(VexelEventObj* obj, const char* name, const char* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Set(NameKey(name), "str", Quote(value));
}

int vexel_fill_array_param_string_v2(VexelEventObj* obj, const char* name, const char* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Fill(NameKey(name), "str", Quote(value));
}

// A nested object is copied as it stands now; the caller may destroy it after.
int vexel_set_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Set(NameKey(name), "obj", value->ToJson());
}

int vexel_fill_array_param_class_v2(VexelEventObj* obj, const char* name, VexelEventObj* value) {
    if (obj == nullptr || name == nullptr || value == nullptr) {
        return -1;
    }
    return obj->Fill(NameKey(name), "obj", value->ToJson());
}

}  // extern "C"
