#include "tools/Timeline.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <vector>

#include "tools/EventLog.h"
#include "tools/JsonNumbers.h"
#include "tools/TextLines.h"

using nlohmann::json;

namespace vymm {

namespace {

constexpr int kPid = 1;
constexpr int kUploadsTid = 1;
constexpr char kRefusedHead[] = "# refused from uid ";

json Event(const char* ph, const std::string& name, int64_t ts, int tid, json args) {
    return {{"ph", ph}, {"name", name}, {"ts", ts}, {"pid", kPid}, {"tid", tid},
            {"args", std::move(args)}};
}

json Instant(const std::string& name, int64_t ts, int tid, json args) {
    json event = Event("i", name, ts, tid, std::move(args));
    event["s"] = "t";
    return event;
}

json ThreadName(int tid, const std::string& name) {
    return Event("M", "thread_name", 0, tid, {{"name", name}});
}

// The header's "started YYYY-MM-DD HH:MM:SS[.ffffff] UTC", in µs since the epoch.
std::optional<int64_t> HeaderStart(const std::string& line) {
    // The regex only sees a header line of a plausible length.
    if (line.rfind("# Calls to ", 0) != 0 || line.size() > 1024) {
        return std::nullopt;
    }
    static const std::regex kStarted(
            R"(^# Calls to .* started (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)(\.\d{1,6})? UTC)");
    std::smatch match;
    struct tm utc = {};
    if (!std::regex_search(line, match, kStarted) ||
        strptime(match[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &utc) == nullptr) {
        return std::nullopt;
    }
    const std::string fraction = match[2].matched ? match[2].str().substr(1) : "0";
    const int64_t micros = std::stoll(fraction + std::string(6 - fraction.size(), '0'));
    return static_cast<int64_t>(timegm(&utc)) * 1000000 + micros;
}

json ArgValue(const TypedArg& arg) {
    switch (arg.type) {
        case TypedArg::I32:
            return arg.number;
        case TypedArg::S8:
            return arg.text;
        case TypedArg::NUL:
            break;
    }
    return nullptr;
}

std::string Hex(int32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%x", static_cast<uint32_t>(value));
    return text;
}

}  // namespace

TimelineBuilder::TimelineBuilder() : mUid(geteuid()) {
    mEvents.push_back(Event("M", "process_name", 0, kUploadsTid, {{"name", std::string(kServiceName)}}));
    mEvents.push_back(ThreadName(kUploadsTid, "uploads"));
}

int64_t TimelineBuilder::Since(int64_t wallUs) {
    // Without a capture header, the first time seen is the start.
    if (!mStartWallUs) {
        mStartWallUs = wallUs;
    }
    int64_t since = 0;
    return __builtin_sub_overflow(wallUs, *mStartWallUs, &since) ? 0 : since;
}

int TimelineBuilder::TrackOf(uid_t uid) {
    const auto [it, added] = mTracks.emplace(uid, kUploadsTid + 1 + static_cast<int>(mTracks.size()));
    if (added) {
        mEvents.push_back(ThreadName(it->second, "calls from uid " + std::to_string(uid)));
    }
    return it->second;
}

void TimelineBuilder::AddCounter(const std::string& name, const std::string& key,
                                 const json& value, int64_t ts) {
    mEvents.push_back(Event("C", name, ts, kUploadsTid, {{key, value}}));
}

void TimelineBuilder::AddCall(const TraceStep& step, bool refused) {
    json args = {{"operation", step.op->number}};
    for (size_t i = 0; i < step.args.size() && i < step.op->params.size(); ++i) {
        args[step.op->params[i].name] = ArgValue(step.args[i]);
    }
    if (refused) {
        args["refused"] = true;
    }
    const std::string name = std::string(step.op->name) + (refused ? " (refused)" : "");
    mEvents.push_back(Instant(name, mNow, TrackOf(mUid), std::move(args)));
    if (!refused) {
        AddAudioState(step);
    }
}

// The state the service keeps from the Monitor... calls, one counter each.
void TimelineBuilder::AddAudioState(const TraceStep& step) {
    const auto arg = [&step](size_t i) { return step.args[i].number; };
    const std::string name = step.op->name;
    if (name == "MonitorVolumeIndex") {
        AddCounter("volume source " + std::to_string(arg(0)) + " device " + Hex(arg(2)), "index",
                   arg(1), mNow);
    } else if (name == "MonitorBroadcastStream" && (arg(0) == 0 || arg(0) == 1)) {
        AddCounter("stream " + std::to_string(arg(1)), "active", arg(0), mNow);
    } else if (name == "MonitorBroadcastDevice") {
        AddCounter("output device", "device", static_cast<uint32_t>(arg(0)), mNow);
    } else if (name == "MonitorSetForceUse") {
        AddCounter("force use " + std::to_string(arg(0)), "config", arg(1), mNow);
    }
}

bool TimelineBuilder::ReadCaptureLine(const std::string& line, std::string* error) {
    if (const auto start = HeaderStart(line); start && !mStartWallUs) {
        mStartWallUs = start;
    }
    const bool refused = line.rfind(kRefusedHead, 0) == 0;
    const size_t colon = line.find(": ");
    std::vector<std::string> words;
    if (!SplitWords(refused && colon != std::string::npos ? line.substr(colon + 2) : line, &words,
                    error)) {
        return false;
    }
    if (words.empty()) {
        return true;
    }
    TraceStep step;
    if (!ParseStep(words, &step, error)) {
        return false;
    }
    if (refused) {
        const uid_t self = mUid;
        mUid = static_cast<uid_t>(strtoul(line.c_str() + strlen(kRefusedHead), nullptr, 10));
        AddCall(step, true);
        mUid = self;
    } else if (step.kind == TraceStep::SLEEP) {
        mNow += step.sleepMs * 1000;
    } else if (step.kind == TraceStep::AS) {
        mUid = step.uid;
    } else {
        AddCall(step, false);
    }
    return true;
}

bool TimelineBuilder::AddCapture(std::istream& in, const std::string& name, std::string* error) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::string lineError;
        if (!ReadCaptureLine(line, &lineError)) {
            *error = LinePrefix(name, number) + lineError;
            return false;
        }
    }
    return true;
}

bool TimelineBuilder::AddUploads(std::istream& in, const std::string& name, std::string* error) {
    std::string line;
    std::string text;
    for (int number = 1; std::getline(in, line); ++number) {
        const json upload = json::parse(line, nullptr, false);
        if (!FormatEvent(line, &text)) {
            *error = LinePrefix(name, number) + "not a recorded event";
            return false;
        }
        const bool timed = upload.contains("sent_us") && upload["sent_us"].is_number_integer();
        const int64_t ts = timed ? Since(upload["sent_us"].get<int64_t>()) : mNow;
        const size_t blank = text.find(' ');
        json args = {{"id", upload["id"]},
                     {"parameters", blank == std::string::npos ? "" : text.substr(blank + 1)}};
        if (!timed) {
            args["sent"] = "unknown: placed at the capture's end";
        }
        mEvents.push_back(Instant("upload " + upload["id"].dump(), ts, kUploadsTid, std::move(args)));
    }
    return true;
}

void TimelineBuilder::AddStatsSample(const json& sample, int64_t wallUs) {
    const int64_t ts = Since(wallUs);
    AddCounter("queue depth", "events", NumberAt(sample, "/queue/depth"), ts);
    json drops = json::object();
    const json::json_pointer dropped("/queue/dropped");
    if (sample.contains(dropped) && sample.at(dropped).is_object()) {
        for (const auto& [cause, count] : sample.at(dropped).items()) {
            drops[cause] = count.is_number() ? count.get<double>() : 0;
        }
    }
    mEvents.push_back(Event("C", "queue drops", ts, kUploadsTid, std::move(drops)));
    const double dispatched = NumberAt(sample, "/worker/dispatched");
    if (mLastDispatched && wallUs > mLastDispatched->first &&
        dispatched >= mLastDispatched->second) {
        const double seconds = static_cast<double>(wallUs - mLastDispatched->first) / 1e6;
        AddCounter("dispatch rate", "events/s", (dispatched - mLastDispatched->second) / seconds,
                   ts);
    }
    mLastDispatched = std::make_pair(wallUs, dispatched);
}

bool TimelineBuilder::AddStats(std::istream& in, const std::string& name, std::string* error) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const json sample = json::parse(line, nullptr, false);
        if (!sample.is_object() || !sample.contains("sampled_us") ||
            !sample["sampled_us"].is_number_integer()) {
            *error = LinePrefix(name, number) +
                     "not a sample of vymm stats --watch S --json (no sampled_us)";
            return false;
        }
        AddStatsSample(sample, sample["sampled_us"].get<int64_t>());
    }
    return true;
}

}  // namespace vymm
