// Feeds arbitrary client text to the KPI writer: the whole text to WriteKpis,
// and its three NUL-separated pieces to AddOneKpi.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include <android/log.h>

#include "writers/MediaKpiWriter.h"
#include "writers/MediaMonitorPolicy.h"

// Each rejected text logs a line; at this rate they would only slow it down.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const android::sp<android::MediaKpiWriter> writer = new android::MediaKpiWriter(nullptr);
    const std::string text(reinterpret_cast<const char*>(data), size);
    writer->WriteKpis(android::String8(text.data(), text.size()));

    std::string pieces[3];
    size_t start = 0;
    for (std::string& piece : pieces) {
        const size_t end = std::min(text.find('\0', start), text.size());
        piece = text.substr(std::min(start, text.size()), end - std::min(start, end));
        start = end + 1;
    }
    android::Vector<android::MediaKpi> list;
    writer->AddOneKpi(list, android::String8(pieces[0].c_str()), android::String8(pieces[1].c_str()),
                      android::String8(pieces[2].c_str()));
    return 0;
}
