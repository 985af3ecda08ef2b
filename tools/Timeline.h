// `vymm timeline`: a run's capture, uploads and statistics samples on one
// time axis, as a JSON trace event file that a trace viewer opens (an array
// of events: ph, ts in microseconds, pid, tid, name, args). Each calling uid
// has a track with its calls as instants, refused ones marked; the audio
// state the Monitor... calls set, the statistics samples' queue depth, drops
// and dispatch rate are counters; the uploads are instants on their own
// track. Runs on the tool's one thread.
#ifndef VYMM_TOOLS_TIMELINE_H
#define VYMM_TOOLS_TIMELINE_H

#include <stdint.h>
#include <sys/types.h>

#include <istream>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/Trace.h"

namespace vymm {

class TimelineBuilder {
public:
    TimelineBuilder();

    // The capture (`data/log/mediaCapture.trace`): its calls, and its
    // refused calls, which it keeps as comments. False at the first line
    // that is neither, with "NAME:LINE: ..." in error.
    bool AddCapture(std::istream& in, const std::string& name, std::string* error);
    // Uploads recorded by the host reporting library, one JSON line each;
    // those without a send time go at the capture's end.
    bool AddUploads(std::istream& in, const std::string& name, std::string* error);
    // A `vymm stats --watch S --json` log, one object a line.
    bool AddStats(std::istream& in, const std::string& name, std::string* error);

    // The trace: metadata first, then the events in the order added.
    const nlohmann::json& Trace() const { return mEvents; }
    // The trace as a file's text; bytes of the capture's texts that are not
    // UTF-8 become U+FFFD.
    std::string Text() const {
        return mEvents.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    }

private:
    // Microseconds from the capture's start for a wall-clock time.
    int64_t Since(int64_t wallUs);
    int TrackOf(uid_t uid);
    void AddCall(const TraceStep& step, bool refused);
    void AddAudioState(const TraceStep& step);
    void AddCounter(const std::string& name, const std::string& key, const nlohmann::json& value,
                    int64_t ts);
    void AddStatsSample(const nlohmann::json& sample, int64_t wallUs);
    bool ReadCaptureLine(const std::string& line, std::string* error);

    nlohmann::json mEvents = nlohmann::json::array();
    std::map<uid_t, int> mTracks;
    std::optional<int64_t> mStartWallUs;  // the capture's start, from its header
    int64_t mNow = 0;                     // µs since the capture's start
    uid_t mUid;
    std::optional<std::pair<int64_t, double>> mLastDispatched;  // wall µs, count
};

// A picture of the trace for a page: one row per call track, the uploads,
// and each counter as a step line, over a common time axis. Drawn here, no
// viewer needed.
std::string TimelineSvg(const nlohmann::json& trace);

}  // namespace vymm

#endif
