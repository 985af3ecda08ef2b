#include "tools/Stats.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include <nlohmann/json.hpp>
#include <utils/String16.h>
#include <utils/Vector.h>

using nlohmann::json;

namespace vymm {

namespace {

// The numbers of value by path; an array element that names itself is known
// by "name#number", any other by its position from 1.
void Numbers(const json& value, const std::string& path, std::map<std::string, double>* out) {
    const auto child = [&path](const std::string& name) {
        return path.empty() ? name : path + "." + name;
    };
    if (value.is_object()) {
        for (const auto& [name, member] : value.items()) {
            if (name != "number") {
                Numbers(member, child(name), out);
            }
        }
    } else if (value.is_array()) {
        for (size_t i = 0; i < value.size(); ++i) {
            const json& element = value[i];
            const bool named = element.is_object() && element.contains("name") &&
                               element.contains("number");
            Numbers(element,
                    child(named ? element["name"].get<std::string>() + "#" +
                                          element["number"].dump()
                                : std::to_string(i + 1)),
                    out);
        }
    } else if (value.is_number()) {
        (*out)[path] = value.get<double>();
    }
}

bool ParseSample(const std::string& text, const char* which, std::map<std::string, double>* out,
                 std::string* error) {
    const json value = json::parse(text, nullptr, false);
    if (!value.is_object()) {
        *error = std::string("the ") + which + " sample is not a JSON object";
        return false;
    }
    Numbers(value, "", out);
    return true;
}

}  // namespace

bool FetchDump(const android::sp<android::IBinder>& binder, const std::vector<std::string>& args,
               std::string* text, std::string* error) {
    // A file rather than a pipe: the service writes all before it returns.
    FILE* file = tmpfile();
    if (file == nullptr) {
        *error = std::string("cannot make a temporary file: ") + strerror(errno);
        return false;
    }
    android::Vector<android::String16> words;
    for (const std::string& arg : args) {
        words.add(android::String16(arg.c_str()));
    }
    const android::status_t status = binder->dump(fileno(file), words);
    if (status != android::NO_ERROR) {
        fclose(file);
        *error = "the dump failed (" + std::to_string(status) + ")";
        return false;
    }
    rewind(file);
    text->clear();
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), file)) > 0;) {
        text->append(buffer, n);
    }
    fclose(file);
    return true;
}

bool FormatRates(const std::string& now, const std::string& before, double seconds,
                 std::string* text, std::string* error) {
    std::map<std::string, double> current;
    std::map<std::string, double> previous;
    if (!ParseSample(now, "new", &current, error) ||
        (!before.empty() && !ParseSample(before, "earlier", &previous, error))) {
        return false;
    }
    size_t width = 0;
    for (const auto& entry : current) {
        width = std::max(width, entry.first.size());
    }
    text->clear();
    char line[64];
    for (const auto& [name, total] : current) {
        *text += name + std::string(width - name.size() + 2, ' ');
        snprintf(line, sizeof(line), "%14.0f", total);
        *text += line;
        const auto earlier = previous.find(name);
        if (earlier != previous.end() && seconds > 0) {
            snprintf(line, sizeof(line), "  %10.1f/s", (total - earlier->second) / seconds);
            *text += line;
        }
        *text += "\n";
    }
    return true;
}

}  // namespace vymm
