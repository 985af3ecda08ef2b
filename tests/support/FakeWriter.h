// A writer whose limits the test sets and whose call-backs it records, for
// driving the send policy directly.
#ifndef VYMM_TESTS_FAKE_WRITER_H
#define VYMM_TESTS_FAKE_WRITER_H

#include <string>
#include <vector>

#include "writers/MediaLogBase.h"

class FakeWriter : public android::MediaLogBase {
public:
    FakeWriter(const android::sp<android::MediaMonitorPolicy>& policy, int32_t type)
        : MediaLogBase(policy) {
        mWriterType = type;
    }

    // What the getters answer.
    int cur = 0;
    int max = 10;
    int fileMax = 0;
    long lastTime = -1;
    long cycle = 1000;
    const char* path = nullptr;

    // Call-backs received, in order.
    std::vector<std::string> calls;

    void WriteToFile() override { calls.push_back("WriteToFile"); }
    bool DoSendMediaLog() override {
        calls.push_back("DoSendMediaLog");
        return true;
    }
    void ResetLogMem() override {
        calls.push_back("ResetLogMem");
        cur = 0;
    }
    const char* GetFilePath() override { return path; }
    void GetMemInfos(int* curOut, int* maxOut) override {
        *curOut = cur;
        *maxOut = max;
    }
    void GetFileInfos(int* maxOut) override { *maxOut = fileMax; }
    void GetLastTime(long* lastTimeOut, long* cycleOut) override {
        *lastTimeOut = lastTime;
        *cycleOut = cycle;
    }

    using MediaLogBase::globalMediaLogCycleDuration;
    using MediaLogBase::MAX_RECORD_FILE_READ;
    using MediaLogBase::mCurFileSize;
};

#endif
