// What `vymm stats` does with the service's statistics dump: fetch it, tell
// a sample from a refusal ("Dump busy", "Permission Denial"), and draw the
// live view of --watch from two samples. Runs on the tool's one thread.
#ifndef VYMM_TOOLS_STATS_H
#define VYMM_TOOLS_STATS_H

#include <time.h>

#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <nlohmann/json.hpp>

namespace vymm {

// The text the service's dump writes for args; false, with the reason in
// error, when the dump cannot be taken.
bool FetchDump(const android::sp<android::IBinder>& binder, const std::vector<std::string>& args,
               std::string* text, std::string* error);

// The statistics object of a `dump --stats --json` answer; false with the
// answer's first line in error when it is none (busy, denied).
bool ParseStatsSample(const std::string& text, nlohmann::json* sample, std::string* error);

// The live view fits this.
constexpr size_t kScreenLines = 40;
constexpr size_t kScreenColumns = 100;

// One screen of what matters in sample now: calls and refusals per second
// (in all and the busiest operations), the queue, drops by cause, the
// worker, each writer's records, share of its cap, uploads and the age of
// the last one (wallNow, seconds since the epoch). Rates are of counts only,
// over seconds since before (null: none yet); rows zero since start are left
// out.
std::string FormatScreen(const nlohmann::json& now, const nlohmann::json& before, double seconds,
                         time_t wallNow);

}  // namespace vymm

#endif
