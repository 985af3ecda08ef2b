// The statistics dump's two forms of one MonitorStats: a JSON object whose
// field names are stable (README lists them), and aligned text with a
// section per part made from the same object, so the two never disagree.
#ifndef VYMM_SERVICE_MONITOR_STATS_RENDERER_H
#define VYMM_SERVICE_MONITOR_STATS_RENDERER_H

#include <string>

#include <json/value.h>

#include "service/MonitorStats.h"

namespace android {

Json::Value StatsToJson(const MonitorStats& stats);
// One line of JSON and a newline.
std::string RenderStatsJson(const MonitorStats& stats);
std::string RenderStatsText(const MonitorStats& stats);

}  // namespace android

#endif
