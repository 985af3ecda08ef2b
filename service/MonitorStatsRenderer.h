// The statistics dump's two forms of one MonitorStats: a JSON object whose
// field names are stable (README lists them), and aligned text with a
// section per part. Both come from one build of the figures in their
// documented order, so the two never disagree and a new figure is added in
// one place.
#ifndef VYMM_SERVICE_MONITOR_STATS_RENDERER_H
#define VYMM_SERVICE_MONITOR_STATS_RENDERER_H

#include <time.h>

#include <string>

#include <json/value.h>

#include "service/MonitorStats.h"

namespace android {

Json::Value StatsToJson(const MonitorStats& stats);
// One line of JSON and a newline.
std::string RenderStatsJson(const MonitorStats& stats);
// now (seconds since the epoch) is what the times' ages are taken from.
std::string RenderStatsText(const MonitorStats& stats, time_t now);

}  // namespace android

#endif
