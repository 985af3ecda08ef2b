// The mixed calls that the load test's client processes make: what each kind
// of call leaves in the service is what the test accounts for.
#ifndef VYMM_TESTS_LOAD_MIX_H
#define VYMM_TESTS_LOAD_MIX_H

#include <unistd.h>

#include <IVyMediaMonitorService.h>

enum LoadKind {
    LOAD_COUNT_MESSAGE,         // a checked big-data file message for the count writer
    LOAD_UNREGISTERED_MESSAGE,  // a checked file message of a type no file takes
    LOAD_RADAR_MESSAGE,         // a checked log message that skips the queue
    LOAD_EXCEPTION,             // an unchecked exception, always queued
    LOAD_AUDIO_STATE,           // kept in the audio state, never queued
    LOAD_CACHED_BIG_DATA,       // kept in a cache slot until a flush
    LOAD_KINDS,
};

// How a client prints the number of calls it made of each kind.
constexpr const char* kLoadKindNames[LOAD_KINDS] = {
        "count-message", "unregistered-message", "radar-message",
        "exception",     "audio-state",          "cached-big-data",
};

// The exceptions' event id; thread t reports sub-type t % 4.
constexpr int kLoadExceptionId = 916000101;

// Call number call of a client thread; returns its kind.
inline LoadKind MakeMixedCall(android::IVyMediaMonitorService* service, int thread, int call) {
    using android::String8;
    constexpr int kCountTypes[] = {20000, 20001, 20100};
    constexpr int kUnregisteredType = 15000;
    constexpr int kDirectLogType = 9;
    const int round = call / 8;
    switch (call % 8) {
        case 0:
            service->WriteMediaBigData(getpid(), kCountTypes[round % 3], "load");
            return LOAD_COUNT_MESSAGE;
        case 1:
            service->WriteLogMsg(kLoadExceptionId, 1, thread % 4, String8("timeout"),
                                 String8("load"));
            return LOAD_EXCEPTION;
        case 2:
            service->MonitorVolumeIndex(1 + round % 13, round % 10, 1 + round % 2);
            return LOAD_AUDIO_STATE;
        case 3:
            service->WriteMediaBigData(getpid(), kUnregisteredType, "load");
            return LOAD_UNREGISTERED_MESSAGE;
        case 4:
            service->MonitorBroadcastStream(round % 2, round % 14);
            return LOAD_AUDIO_STATE;
        case 5:
            service->WriteBigData(916600002 + round % 7, "com.load", "old", "new");
            return LOAD_CACHED_BIG_DATA;
        case 6:
            service->WriteLogMsg(3, kDirectLogType, "radar");
            return LOAD_RADAR_MESSAGE;
        default:
            service->MonitorPlayingApp("com.load");
            return LOAD_AUDIO_STATE;
    }
}

#endif
