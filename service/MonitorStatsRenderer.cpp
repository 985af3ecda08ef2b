#include "service/MonitorStatsRenderer.h"

#include <inttypes.h>
#include <stdio.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <json/writer.h>

namespace android {

namespace {

constexpr const char* kWriterNames[MONITOR_WRITERS] = {
        "exception_log", "bd_flow", "bd_count", "exception", "kpi", "bigdata",
};

constexpr const char* kRefusalNames[WRITER_REFUSALS] = {
        "cap", "byte_limit", "invalid", "saturated", "file_missing",
};

constexpr const char* kReportingStates[] = {"not_loaded_yet", "loaded", "absent", "lacking"};

// Wide enough for a writer's name, a date and most figures.
constexpr size_t kColumnWidth = 14;

uint64_t Micros(uint64_t nanoseconds) { return nanoseconds / 1000; }

// How long before now a time was, in the largest unit that still reads
// as two or more; "never" for none.
std::string Age(int64_t seconds, time_t now) {
    if (seconds <= 0) {
        return "never";
    }
    struct Unit {
        int64_t seconds;
        const char* name;
    };
    constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}};
    const int64_t age = std::max<int64_t>(0, static_cast<int64_t>(now) - seconds);
    for (const Unit& unit : kUnits) {
        if (age >= 2 * unit.seconds) {
            return std::to_string(age / unit.seconds) + " " + unit.name + " ago";
        }
    }
    return std::to_string(age) + " s ago";
}

// Local time, as the writers' records show it; "-" for none.
std::string Date(int64_t seconds) {
    const time_t time = static_cast<time_t>(seconds);
    struct tm local;
    char text[32] = "-";
    if (seconds > 0 && localtime_r(&time, &local) != nullptr) {
        strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local);
    }
    return text;
}

// One part of the statistics: its fields in the order they are added, as a
// JSON object and as the text's rows (a nested field's row is "a.b").
class Part {
public:
    explicit Part(time_t now) : mNow(now) {}

    Part& Count(const std::string& name, uint64_t value) {
        return Field(name, Json::Value(static_cast<Json::UInt64>(value)));
    }
    Part& Field(const std::string& name, const Json::Value& value) {
        mJson[name] = value;
        mRows.emplace_back(name, value.asString());
        return *this;
    }
    // Seconds since the epoch, 0 for never: in JSON as they are, in the text
    // as an age and, in the row dateRow, a date.
    Part& Time(const std::string& name, const std::string& dateRow, int64_t seconds) {
        mJson[name] = static_cast<Json::Int64>(seconds);
        mRows.emplace_back(name, Age(seconds, mNow));
        mRows.emplace_back(dateRow, Date(seconds));
        return *this;
    }
    Part& Nested(const std::string& name, const Part& part) {
        mJson[name] = part.mJson;
        for (const auto& [row, text] : part.mRows) {
            mRows.emplace_back(name + "." + row, text);
        }
        return *this;
    }
    Part New() const { return Part(mNow); }

    const Json::Value& json() const { return mJson; }
    const std::vector<std::pair<std::string, std::string>>& rows() const { return mRows; }

private:
    time_t mNow;
    Json::Value mJson{Json::objectValue};
    std::vector<std::pair<std::string, std::string>> mRows;
};

// A part of the JSON object (key) and of the text (title): one unnamed
// column, or one named column per writer.
struct Section {
    const char* key;
    const char* title;
    std::vector<std::string> columns;
    std::vector<Part> parts;
};

Section Single(const char* key, const char* title, Part part) {
    return {key, title, {}, {std::move(part)}};
}

Part Callers(const MonitorStats& stats, Part part) {
    uint64_t refused = 0;
    for (uint64_t count : stats.refused) {
        refused += count;
    }
    return part.Count("refused", refused)
            .Field("last_refused_uid", stats.lastRefusedUid)
            .Field("last_refused_pid", stats.lastRefusedPid);
}

Part Queue(const MonitorStats& stats, Part part) {
    Part queued = part.New();
    for (size_t type = 0; type < MONITOR_EVENT_TYPES; ++type) {
        queued.Count(vymm::kEventTypeNames[type], stats.queued[type]);
    }
    Part dropped = part.New();
    dropped.Count("queue_full", stats.droppedFull)
            .Count("byte_limit", stats.droppedBytes)
            .Count("no_worker", stats.droppedNoWorker)
            .Count("audio_filter", stats.droppedByAudioFilter);
    // Calls the clients dropped before sending, per calling uid.
    Part beforeSending = part.New();
    for (size_t i = 0; i < stats.droppedBeforeSendingUids; ++i) {
        const ClientDrops& drops = stats.droppedBeforeSending[i];
        beforeSending.Count("uid_" + std::to_string(drops.uid), drops.calls);
    }
    if (stats.droppedBeforeSendingOtherUids > 0) {
        beforeSending.Count("other_uids", stats.droppedBeforeSendingOtherUids);
    }
    dropped.Nested("before_sending", beforeSending);
    return part.Nested("queued", queued)
            .Nested("dropped", dropped)
            .Count("depth", stats.depth)
            .Count("high_water", stats.highWater)
            .Count("limit", stats.limit)
            .Count("bytes", stats.bytes)
            .Count("byte_limit", stats.byteLimit);
}

Part Worker(const MonitorStats& stats, Part part) {
    return part.Count("dispatched", stats.dispatched)
            .Count("in_hand", stats.inHand)
            .Count("longest_dispatch_us", Micros(stats.longestDispatchNs));
}

Part Writer(bool present, const WriterStats& stats, Part part) {
    Part refused = part.New();
    for (size_t cause = 0; cause < WRITER_REFUSALS; ++cause) {
        refused.Count(kRefusalNames[cause], stats.refused[cause]);
    }
    Part persist = part.New();
    persist.Count("recovered_records", stats.recoveredRecords)
            .Count("recovered_events", stats.recoveredEvents)
            .Count("journal_bytes", stats.journalBytes)
            .Count("snapshots", stats.snapshots)
            .Count("damaged_dropped", stats.damagedDropped)
            .Count("uploads_in_doubt", stats.uploadsInDoubt)
            .Count("write_failures", stats.persistFailures);
    return part.Field("present", present)
            .Count("records", stats.records)
            .Count("charge", stats.charge)
            .Count("cap", stats.cap)
            .Count("bytes", stats.bytes)
            .Count("byte_limit", stats.byteLimit)
            .Nested("refused", refused)
            .Count("merged", stats.merged)
            .Count("uploads", stats.uploads)
            .Count("events_sent", stats.eventsSent)
            .Time("last_upload_time", "last_upload_date", stats.lastUploadTime)
            .Count("longest_upload_us", Micros(stats.longestUploadNs))
            .Count("file_bytes", stats.fileBytes)
            .Count("file_truncations", stats.fileTruncations)
            .Count("record_path_replaced", stats.pathsReplaced)
            .Count("record_path_skipped", stats.pathsSkipped)
            .Count("log_suppressed", stats.logSuppressed)
            .Nested("persist", persist);
}

Part Reporting(const VexelProxy::Stats& stats, Part part) {
    return part.Field("state", kReportingStates[stats.state])
            .Field("missing_symbols", stats.missingSymbols)
            .Count("load_failures", stats.loadFailures)
            .Count("creates_refused", stats.createsRefused)
            .Count("sends_refused", stats.sendsRefused);
}

// Every part after the operations, in the text's order.
std::vector<Section> Sections(const MonitorStats& stats, time_t now) {
    const Part part(now);
    std::vector<Section> sections = {
            Single("callers", "Callers", Callers(stats, part)),
            Single("queue", "Queue", Queue(stats, part)),
            Single("worker", "Worker", Worker(stats, part)),
            Single("dumps", "Dumps",
                   part.New().Count("given_up", stats.dumpsGivenUp).Count("busy", stats.dumpsBusy)),
            Single("log", "Log lines", part.New().Count("suppressed", stats.logSuppressed)),
            Single("capture", "Call capture",
                   part.New()
                           .Field("on", stats.capturing)
                           .Count("rename_failures", stats.captureRenameFailures)
                           .Count("path_replaced", stats.capturePathsReplaced)),
            Single("reporting", "Reporting library", Reporting(stats.reporting, part)),
            {"writers", "Writers", {}, {}},
    };
    Section& writers = sections.back();
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        writers.columns.emplace_back(kWriterNames[i]);
        writers.parts.push_back(Writer(stats.writerPresent[i], stats.writers[i], part));
    }
    return sections;
}

Json::Value OperationsToJson(const MonitorStats& stats) {
    Json::Value operations(Json::arrayValue);
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        Json::Value op;
        op["number"] = static_cast<int>(i + 1);
        op["name"] = vymm::kOperationNames[i];
        op["calls"] = static_cast<Json::UInt64>(stats.calls[i]);
        op["refused"] = static_cast<Json::UInt64>(stats.refused[i]);
        operations.append(op);
    }
    return operations;
}

std::string PadRight(const std::string& text, size_t width) {
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string PadLeft(const std::string& text, size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

// A section's rows, one cell per column; every part has the same rows.
void AppendSection(std::string* text, const Section& section) {
    size_t width = 0;
    for (const auto& row : section.parts[0].rows()) {
        width = std::max(width, row.first.size());
    }
    *text += std::string(section.title) + ":\n";
    if (!section.columns.empty()) {
        *text += "  " + PadRight("", width);
        for (const std::string& column : section.columns) {
            *text += "  " + PadLeft(column, kColumnWidth);
        }
        *text += "\n";
    }
    for (size_t row = 0; row < section.parts[0].rows().size(); ++row) {
        *text += "  " + PadRight(section.parts[0].rows()[row].first, width);
        for (const Part& part : section.parts) {
            *text += "  " + PadLeft(part.rows()[row].second, kColumnWidth);
        }
        *text += "\n";
    }
    *text += "\n";
}

void AppendOperations(std::string* text, const MonitorStats& stats) {
    char line[128];
    *text += "Operations:\n   #  name                      calls    refused\n";
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        snprintf(line, sizeof(line), "  %2zu  %-22s %8" PRIu64 " %10" PRIu64 "\n", i + 1,
                 vymm::kOperationNames[i], stats.calls[i], stats.refused[i]);
        *text += line;
    }
    *text += "\n";
}

}  // namespace

Json::Value StatsToJson(const MonitorStats& stats) {
    Json::Value root;
    root["operations"] = OperationsToJson(stats);
    for (const Section& section : Sections(stats, 0)) {
        if (section.columns.empty()) {
            root[section.key] = section.parts[0].json();
        }
        for (size_t i = 0; i < section.columns.size(); ++i) {
            root[section.key][section.columns[i]] = section.parts[i].json();
        }
    }
    return root;
}

std::string RenderStatsJson(const MonitorStats& stats) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, StatsToJson(stats)) + "\n";
}

std::string RenderStatsText(const MonitorStats& stats, time_t now) {
    std::string text = "Service statistics at " + Date(now) +
                       ", since start or the last --reset-stats:\n\n";
    AppendOperations(&text, stats);
    for (const Section& section : Sections(stats, now)) {
        AppendSection(&text, section);
    }
    return text;
}

}  // namespace android
