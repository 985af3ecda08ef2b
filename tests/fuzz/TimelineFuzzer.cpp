// Feeds arbitrary text to `vymm timeline` as a capture, an events file and a
// statistics log. Whatever it reads, the trace is an array of events the
// viewer knows (M, i, C) that writes out as JSON and reads back, and the
// picture is drawn to its end.
#include <stddef.h>
#include <stdint.h>

#include <sstream>
#include <string>

#include "tools/Timeline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    vymm::TimelineBuilder timeline;
    std::string error;
    std::istringstream capture(text);
    std::istringstream uploads(text);
    std::istringstream stats(text);
    timeline.AddCapture(capture, "capture", &error);
    timeline.AddUploads(uploads, "events", &error);
    timeline.AddStats(stats, "stats", &error);
    for (const nlohmann::json& event : timeline.Trace()) {
        const std::string ph = event.value("ph", "");
        if (ph != "M" && ph != "i" && ph != "C") {
            __builtin_trap();
        }
    }
    if (!nlohmann::json::parse(timeline.Text(), nullptr, false).is_array()) {
        __builtin_trap();
    }
    const std::string svg = vymm::TimelineSvg(timeline.Trace());
    if (svg.size() < 7 || svg.compare(svg.size() - 7, 7, "</svg>\n") != 0) {
        __builtin_trap();
    }
    return 0;
}
