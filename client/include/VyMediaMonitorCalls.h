// The 21 operations of IVyMediaMonitorService in words: their numbers, names
// and typed parameters, and a call written as the typed words that `vymm call`
// and traces read (`i32 N`, `s8 TEXT`, `null`). Shared by the service, which
// captures calls in these words, and the tools, which parse them. Plain data
// and functions; safe from any thread.
#ifndef VYMM_CLIENT_VYMEDIAMONITORCALLS_H
#define VYMM_CLIENT_VYMEDIAMONITORCALLS_H

#include <stdint.h>

#include <iterator>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>

namespace vymm {

// One typed word and its value.
struct TypedArg {
    enum Type { I32, S8, NUL };
    Type type;
    int32_t number = 0;  // I32: the bits of a signed or unsigned 32-bit value
    std::string text;    // S8
};

// What a parameter accepts: an i32; an s8 or null (a C string); an s8 only.
enum class ParamKind { INT, C_STRING, STRING8 };

struct Param {
    ParamKind kind;
    const char* name;
};

struct Operation {
    int number;  // 1 to 21; the transaction code is FIRST_CALL_TRANSACTION + number - 1
    const char* name;
    std::vector<Param> params;
    // Makes the call; args match params.
    void (*invoke)(android::IVyMediaMonitorService& service, const std::vector<TypedArg>& args);
};

// The operations' names by number - 1; overloads share one.
constexpr const char* kOperationNames[] = {
        "ForceLogSend",           "WriteLogMsg",        "WriteMediaBigData",
        "WriteLogMsg",            "WriteLogMsg",        "WriteKpis",
        "WriteBigData",           "WriteBigData",       "WriteBigData",
        "WriteBigData",           "WriteBigData",       "WriteBigData",
        "WriteBigData",           "WriteBigData",       "WriteBigData",
        "WriteBigData",           "MonitorSetForceUse", "MonitorBroadcastStream",
        "MonitorBroadcastDevice", "MonitorVolumeIndex", "MonitorPlayingApp",
};
static_assert(std::size(kOperationNames) ==
                      android::IVyMediaMonitorService::LAST_OPERATION -
                              android::IVyMediaMonitorService::FORCE_LOG_SEND + 1,
              "one name per operation of the interface");

// The service's event types by number, as the statistics name them; 0 is
// any type outside 1 to 21. The service ties the size to its last type.
constexpr const char* kEventTypeNames[] = {
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

// The longest pause one trace line may ask for: a day.
constexpr int64_t kMaxSleepMs = 24LL * 3600 * 1000;

// The 21 operations in order, named from kOperationNames.
const std::vector<Operation>& Operations();

// text as one word that a trace reads back identical: as it is when it is
// plain printable ASCII, else in double quotes with \" \\ \n \t and \xNN for
// every other byte outside printable ASCII.
std::string QuoteWord(const std::string& text);

// "NAME ARG..." in typed words, the name alone naming the overload.
std::string FormatCall(const Operation& op, const std::vector<TypedArg>& args);

}  // namespace vymm

#endif
