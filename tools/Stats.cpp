#include "tools/Stats.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/Deadline.h"
#include "tools/JsonNumbers.h"
#include "tools/Operations.h"
#include "tools/ServiceClient.h"

using nlohmann::json;

namespace vymm {

namespace {

using Pointer = json::json_pointer;

// The writers in the order their table documents, not the JSON's.
const char* const kWriterOrder[] = {"exception_log", "bd_flow", "bd_count",
                                    "exception",     "kpi",     "bigdata"};
// The operations the screen lists, busiest first.
constexpr size_t kBusiestOperations = 8;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char text[kScreenColumns + 1];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// Counts and their rates between two samples; a rate only for a count that
// did not go back (a reset in between).
class Rates {
public:
    Rates(const json& now, const json& before, double seconds)
        : mNow(now), mBefore(before), mSeconds(seconds) {}

    double Total(const std::string& pointer) const { return NumberAt(mNow, pointer); }

    // "  12.5/s", or blanks when there is no rate.
    std::string Rate(const std::string& pointer) const {
        const double rate = PerSecond(pointer);
        return rate >= 0 ? Format("%8.1f/s", rate) : std::string(10, ' ');
    }

    double PerSecond(const std::string& pointer) const {
        if (mBefore.is_null() || mSeconds <= 0) {
            return -1;
        }
        const double change = Total(pointer) - NumberAt(mBefore, pointer);
        return change >= 0 ? change / mSeconds : -1;
    }

    // "TOTAL RATE", the total right-aligned in width.
    std::string Both(const std::string& pointer, int width) const {
        return Format("%*.0f", width, Total(pointer)) + Rate(pointer);
    }

private:
    const json& mNow;
    const json& mBefore;
    const double mSeconds;
};

std::string Heading(const char* name) { return Format("%-18s", name); }

void Calls(const Rates& rates, const json& now, std::vector<std::string>* lines) {
    double calls = 0;
    double refused = 0;
    double callRate = 0;
    double refusedRate = 0;
    std::vector<std::tuple<double, double, size_t>> busiest;
    const json& operations = now.value("operations", json::array());
    for (size_t i = 0; i < operations.size(); ++i) {
        const std::string at = "/operations/" + std::to_string(i);
        calls += rates.Total(at + "/calls");
        refused += rates.Total(at + "/refused");
        callRate += std::max(0.0, rates.PerSecond(at + "/calls"));
        refusedRate += std::max(0.0, rates.PerSecond(at + "/refused"));
        if (rates.Total(at + "/calls") > 0) {
            // Busiest now, then most called.
            busiest.emplace_back(rates.PerSecond(at + "/calls"), rates.Total(at + "/calls"), i);
        }
    }
    const bool withRates = rates.PerSecond("/operations/0/calls") >= 0;
    lines->push_back(Heading("calls") + Format("%10.0f", calls) +
                     (withRates ? Format("%8.1f/s", callRate) : std::string(10, ' ')) +
                     "   refused" + Format("%10.0f", refused) +
                     (withRates ? Format("%8.1f/s", refusedRate) : ""));
    std::stable_sort(busiest.begin(), busiest.end(), std::greater<>());
    busiest.resize(std::min(busiest.size(), kBusiestOperations));
    for (const auto& entry : busiest) {
        const size_t i = std::get<2>(entry);
        const std::string at = "/operations/" + std::to_string(i);
        const std::string name = operations[i].value("name", "?") + " (" +
                                 std::to_string(operations[i].value("number", 0)) + ")";
        std::string line = Format("  %-30s", name.c_str()) + rates.Both(at + "/calls", 10);
        if (rates.Total(at + "/refused") > 0) {
            line += "   refused" + rates.Both(at + "/refused", 10);
        }
        lines->push_back(line);
    }
}

void Queue(const Rates& rates, const json& now, std::vector<std::string>* lines) {
    lines->push_back(Heading("queue") +
                     Format("depth %.0f   high water %.0f of %.0f   bytes %.0f of %.0f",
                            rates.Total("/queue/depth"), rates.Total("/queue/high_water"),
                            rates.Total("/queue/limit"), rates.Total("/queue/bytes"),
                            rates.Total("/queue/byte_limit")));
    const json dropped = now.value(Pointer("/queue/dropped"), json::object());
    for (const auto& [cause, count] : dropped.items()) {
        if (count.is_number() && count.get<double>() > 0) {
            lines->push_back(Heading("  dropped") + Format("%-20s", cause.c_str()) +
                             rates.Both("/queue/dropped/" + cause, 10));
        }
    }
    lines->push_back(Heading("worker") + "dispatched" + rates.Both("/worker/dispatched", 10) +
                     Format("   in hand %.0f   longest dispatch %.0f us",
                            rates.Total("/worker/in_hand"),
                            rates.Total("/worker/longest_dispatch_us")));
}

std::string Age(double lastUpload, time_t wallNow) {
    if (lastUpload <= 0) {
        return "never";
    }
    const double age = std::max(0.0, static_cast<double>(wallNow) - lastUpload);
    return age < 120 ? Format("%.0f s ago", age) : Format("%.0f min ago", age / 60);
}

void Writers(const Rates& rates, const json& now, time_t wallNow,
             std::vector<std::string>* lines) {
    std::vector<std::string> rows;
    std::vector<std::string> refusals;
    for (const char* name : kWriterOrder) {
        const std::string at = std::string("/writers/") + name;
        const json writer = now.value(Pointer(at), json::object());
        const json refused = writer.value("refused", json::object());
        const double cap = rates.Total(at + "/cap");
        if (!writer.value("present", false) ||
            rates.Total(at + "/records") + rates.Total(at + "/uploads") == 0) {
            continue;
        }
        rows.push_back(Format("  %-16s%8.0f %7.0f%%", name, rates.Total(at + "/records"),
                              cap > 0 ? 100 * rates.Total(at + "/charge") / cap : 0) +
                       rates.Both(at + "/uploads", 8) + "   " +
                       Age(rates.Total(at + "/last_upload_time"), wallNow));
        for (const auto& [cause, count] : refused.items()) {
            if (count.is_number() && count.get<double>() > 0) {
                refusals.push_back(Format("  %-16s%-14s", name, cause.c_str()) +
                                   rates.Both(at + "/refused/" + cause, 8));
            }
        }
    }
    if (!rows.empty()) {
        lines->push_back(Heading("writer") + "records  of cap   uploads            last upload");
        lines->insert(lines->end(), rows.begin(), rows.end());
    }
    if (!refusals.empty()) {
        lines->push_back("writers refused");
        lines->insert(lines->end(), refusals.begin(), refusals.end());
    }
}

void Others(const Rates& rates, const json& now, std::vector<std::string>* lines) {
    if (rates.Total("/callers/refused") > 0) {
        lines->push_back(Heading("refused callers") +
                         Format("last uid %.0f pid %.0f", rates.Total("/callers/last_refused_uid"),
                                rates.Total("/callers/last_refused_pid")));
    }
    if (rates.Total("/dumps/busy") + rates.Total("/dumps/given_up") > 0) {
        lines->push_back(Heading("dumps") + Format("busy %.0f   given up %.0f",
                                                   rates.Total("/dumps/busy"),
                                                   rates.Total("/dumps/given_up")));
    }
    const json state = now.value(Pointer("/reporting/state"), json("?"));
    lines->push_back(Heading("reporting library") + (state.is_string() ? state.get<std::string>()
                                                                        : state.dump()));
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
    android::status_t status;
    {
        const CallDeadline deadline(std::string(kServiceName) + " dumping");
        status = binder->dump(fileno(file), words);
    }
    if (status != android::NO_ERROR) {
        fclose(file);
        *error = "the dump failed (" + StatusName(status) + ")";
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

bool ParseStatsSample(const std::string& text, json* sample, std::string* error) {
    *sample = json::parse(text, nullptr, false);
    if (sample->is_object()) {
        return true;
    }
    *error = text.substr(0, text.find('\n'));
    if (error->empty()) {
        *error = "an empty answer";
    }
    return false;
}

std::string FormatScreen(const json& now, const json& before, double seconds, time_t wallNow) {
    const Rates rates(now, before, seconds);
    std::vector<std::string> lines;
    Calls(rates, now, &lines);
    Queue(rates, now, &lines);
    Writers(rates, now, wallNow, &lines);
    Others(rates, now, &lines);
    std::string screen;
    for (size_t i = 0; i < lines.size() && i < kScreenLines - 2; ++i) {
        screen += lines[i].substr(0, kScreenColumns) + "\n";
    }
    return screen;
}

}  // namespace vymm
