// What `vymm stats` does with the service's statistics dump: fetch it, and
// show two JSON samples as totals with the rate per second between them.
// Runs on the tool's one thread.
#ifndef VYMM_TOOLS_STATS_H
#define VYMM_TOOLS_STATS_H

#include <string>
#include <vector>

#include <binder/IBinder.h>

namespace vymm {

// The text the service's dump writes for args; false, with the reason in
// error, when the dump cannot be taken.
bool FetchDump(const android::sp<android::IBinder>& binder, const std::vector<std::string>& args,
               std::string* text, std::string* error);

// One aligned line per number of the statistics object now: its name (the
// path of fields, an operation named "name#number"), its total and, when
// before is not empty, its change per second over seconds. False, with the
// reason in error, when a sample is not a JSON object.
bool FormatRates(const std::string& now, const std::string& before, double seconds,
                 std::string* text, std::string* error);

}  // namespace vymm

#endif
