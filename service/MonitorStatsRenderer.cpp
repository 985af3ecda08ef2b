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

constexpr const char* kOperationNames[MONITOR_OPERATIONS] = {
        "ForceLogSend",       "WriteLogMsg",          "WriteMediaBigData",
        "WriteLogMsg",        "WriteLogMsg",          "WriteKpis",
        "WriteBigData",       "WriteBigData",         "WriteBigData",
        "WriteBigData",       "WriteBigData",         "WriteBigData",
        "WriteBigData",       "WriteBigData",         "WriteBigData",
        "WriteBigData",       "MonitorSetForceUse",   "MonitorBroadcastStream",
        "MonitorBroadcastDevice", "MonitorVolumeIndex", "MonitorPlayingApp",
};

// By event type; slot 0 is any type outside 1 to 21.
constexpr const char* kEventTypeNames[MONITOR_EVENT_TYPES] = {
        "other",
        "log_msg",
        "bd_flow_msg",
        "bd_count_msg",
        "bd_flow_count_msg",
        "bd_write_files",
        "write_check",
        "exception",
        "exception_ext",
        "kpi",
        "bigdata",
        "bigdata_string",
        "bigdata_output_device",
        "bigdata_pkg",
        "bigdata_pkg_type",
        "bigdata_play_status",
        "force_send",
        "bigdata_recording",
        "bigdata_dual_bluetooth",
        "video_bigdata",
        "video_codec_error",
        "video_caton_vague",
};

constexpr const char* kWriterNames[MONITOR_WRITERS] = {
        "exception_log", "bd_flow", "bd_count", "exception", "kpi", "bigdata",
};

constexpr const char* kRefusalNames[WRITER_REFUSALS] = {
        "cap", "byte_limit", "invalid", "saturated", "file_missing",
};

constexpr const char* kReportingStates[] = {"not_loaded_yet", "loaded", "absent", "lacking"};

// Text sections after the operations' table, in this order.
constexpr std::pair<const char*, const char*> kSections[] = {
        {"callers", "Callers"}, {"queue", "Queue"},        {"worker", "Worker"},
        {"dumps", "Dumps"},     {"log", "Log lines"}, {"reporting", "Reporting library"},
};

// Wide enough for a writer's name and most figures.
constexpr size_t kColumnWidth = 13;

Json::Value Number(uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); }

uint64_t Micros(uint64_t nanoseconds) { return nanoseconds / 1000; }

Json::Value OperationsToJson(const MonitorStats& stats) {
    Json::Value operations(Json::arrayValue);
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        Json::Value op;
        op["number"] = static_cast<int>(i + 1);
        op["name"] = kOperationNames[i];
        op["calls"] = Number(stats.calls[i]);
        op["refused"] = Number(stats.refused[i]);
        operations.append(op);
    }
    return operations;
}

Json::Value QueueToJson(const MonitorStats& stats) {
    Json::Value queue;
    for (size_t type = 0; type < MONITOR_EVENT_TYPES; ++type) {
        queue["queued"][kEventTypeNames[type]] = Number(stats.queued[type]);
    }
    queue["dropped"]["queue_full"] = Number(stats.droppedFull);
    queue["dropped"]["byte_limit"] = Number(stats.droppedBytes);
    queue["dropped"]["no_worker"] = Number(stats.droppedNoWorker);
    // Calls dropped before sending, per calling uid.
    Json::Value& beforeSending = queue["dropped"]["before_sending"] = Json::objectValue;
    for (size_t i = 0; i < stats.droppedBeforeSendingUids; ++i) {
        const ClientDrops& drops = stats.droppedBeforeSending[i];
        beforeSending["uid_" + std::to_string(drops.uid)] = Number(drops.calls);
    }
    if (stats.droppedBeforeSendingOtherUids > 0) {
        beforeSending["other_uids"] = Number(stats.droppedBeforeSendingOtherUids);
    }
    queue["depth"] = Number(stats.depth);
    queue["high_water"] = Number(stats.highWater);
    queue["limit"] = Number(stats.limit);
    queue["bytes"] = Number(stats.bytes);
    queue["byte_limit"] = Number(stats.byteLimit);
    return queue;
}

Json::Value WriterToJson(bool present, const WriterStats& stats) {
    Json::Value writer;
    writer["present"] = present;
    writer["records"] = Number(stats.records);
    writer["charge"] = Number(stats.charge);
    writer["cap"] = Number(stats.cap);
    writer["bytes"] = Number(stats.bytes);
    writer["byte_limit"] = Number(stats.byteLimit);
    for (size_t cause = 0; cause < WRITER_REFUSALS; ++cause) {
        writer["refused"][kRefusalNames[cause]] = Number(stats.refused[cause]);
    }
    writer["merged"] = Number(stats.merged);
    writer["uploads"] = Number(stats.uploads);
    writer["events_sent"] = Number(stats.eventsSent);
    writer["last_upload_time"] = static_cast<Json::Int64>(stats.lastUploadTime);
    writer["longest_upload_us"] = Number(Micros(stats.longestUploadNs));
    writer["file_bytes"] = Number(stats.fileBytes);
    writer["file_truncations"] = Number(stats.fileTruncations);
    writer["record_path_replaced"] = Number(stats.pathsReplaced);
    writer["record_path_skipped"] = Number(stats.pathsSkipped);
    writer["log_suppressed"] = Number(stats.logSuppressed);
    return writer;
}

Json::Value ReportingToJson(const VexelProxy::Stats& stats) {
    Json::Value reporting;
    reporting["state"] = kReportingStates[stats.state];
    reporting["missing_symbols"] = stats.missingSymbols;
    reporting["load_failures"] = Number(stats.loadFailures);
    reporting["creates_refused"] = Number(stats.createsRefused);
    reporting["sends_refused"] = Number(stats.sendsRefused);
    return reporting;
}

// The leaves of value as "a.b" names and their texts, in name order.
void Flatten(const Json::Value& value, const std::string& prefix,
             std::vector<std::pair<std::string, std::string>>* lines) {
    if (!value.isObject()) {
        lines->emplace_back(prefix, value.asString());
        return;
    }
    for (const std::string& name : value.getMemberNames()) {
        Flatten(value[name], prefix.empty() ? name : prefix + "." + name, lines);
    }
}

std::string PadRight(const std::string& text, size_t width) {
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string PadLeft(const std::string& text, size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

// A section whose columns are the members of parts, which all have the
// same fields; its rows are those fields.
void AppendTable(std::string* text, const std::string& title, const Json::Value& parts) {
    const std::vector<std::string> columns = parts.getMemberNames();
    std::vector<std::vector<std::pair<std::string, std::string>>> cells(columns.size());
    size_t width = 0;
    for (size_t c = 0; c < columns.size(); ++c) {
        Flatten(parts[columns[c]], "", &cells[c]);
        for (const auto& cell : cells[c]) {
            width = std::max(width, cell.first.size());
        }
    }
    *text += title + ":\n";
    if (columns.size() > 1) {
        *text += "  " + PadRight("", width);
        for (const std::string& column : columns) {
            *text += "  " + PadLeft(column, kColumnWidth);
        }
        *text += "\n";
    }
    for (size_t row = 0; !cells.empty() && row < cells[0].size(); ++row) {
        *text += "  " + PadRight(cells[0][row].first, width);
        for (const auto& column : cells) {
            *text += "  " + PadLeft(column[row].second, kColumnWidth);
        }
        *text += "\n";
    }
    *text += "\n";
}

void AppendSection(std::string* text, const std::string& title, const Json::Value& value) {
    Json::Value one;
    one[""] = value;
    AppendTable(text, title, one);
}

void AppendOperations(std::string* text, const MonitorStats& stats) {
    char line[128];
    *text += "Operations:\n   #  name                      calls    refused\n";
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        snprintf(line, sizeof(line), "  %2zu  %-22s %8" PRIu64 " %10" PRIu64 "\n", i + 1,
                 kOperationNames[i], stats.calls[i], stats.refused[i]);
        *text += line;
    }
    *text += "\n";
}

}  // namespace

Json::Value StatsToJson(const MonitorStats& stats) {
    Json::Value root;
    root["operations"] = OperationsToJson(stats);
    uint64_t refused = 0;
    for (uint64_t count : stats.refused) {
        refused += count;
    }
    root["callers"]["refused"] = Number(refused);
    root["callers"]["last_refused_uid"] = stats.lastRefusedUid;
    root["callers"]["last_refused_pid"] = stats.lastRefusedPid;
    root["dumps"]["given_up"] = Number(stats.dumpsGivenUp);
    root["dumps"]["busy"] = Number(stats.dumpsBusy);
    root["log"]["suppressed"] = Number(stats.logSuppressed);
    root["queue"] = QueueToJson(stats);
    root["worker"]["dispatched"] = Number(stats.dispatched);
    root["worker"]["in_hand"] = Number(stats.inHand);
    root["worker"]["longest_dispatch_us"] = Number(Micros(stats.longestDispatchNs));
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        root["writers"][kWriterNames[i]] = WriterToJson(stats.writerPresent[i], stats.writers[i]);
    }
    root["reporting"] = ReportingToJson(stats.reporting);
    return root;
}

std::string RenderStatsJson(const MonitorStats& stats) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, StatsToJson(stats)) + "\n";
}

std::string RenderStatsText(const MonitorStats& stats) {
    const Json::Value root = StatsToJson(stats);
    std::string text = "Service statistics, since start or the last --reset-stats:\n\n";
    AppendOperations(&text, stats);
    for (const auto& [key, title] : kSections) {
        AppendSection(&text, title, root[key]);
    }
    AppendTable(&text, "Writers", root["writers"]);
    return text;
}

}  // namespace android
