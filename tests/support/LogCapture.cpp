#include "support/LogCapture.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <android/log.h>

namespace {

std::mutex gMutex;
std::condition_variable gLineAdded;
// Never destroyed: a thread of a test may still log while the process exits.
std::vector<LogLine>& gLines = *new std::vector<LogLine>;  // guarded by gMutex

bool HasText(const LogLine& line, const std::string& tag, const std::string& text) {
    return line.tag == tag && line.message.find(text) != std::string::npos;
}

void CaptureLine(const struct __android_logger_data* data, const char* message) {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gLines.push_back({data->priority, data->tag != nullptr ? data->tag : "",
                          message != nullptr ? message : ""});
    }
    gLineAdded.notify_all();
    // VYMM_TEST_LOG=1 echoes the lines, for reading a failing test.
    if (getenv("VYMM_TEST_LOG") != nullptr) {
        __android_log_stderr_logger(data, message);
    }
}

}  // namespace

LogCapture::LogCapture() {
    __android_log_set_logger(CaptureLine);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    Clear();
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

size_t LogCapture::Count(int priority, const std::string& tag, const std::string& message) const {
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        count += line.priority == priority && line.tag == tag && line.message == message;
    }
    return count;
}

size_t LogCapture::CountContaining(const std::string& tag, const std::string& text) const {
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        count += HasText(line, tag, text);
    }
    return count;
}

bool LogCapture::WaitFor(const std::string& tag, const std::string& message,
                         std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(gMutex);
    return gLineAdded.wait_for(lock, timeout, [&] {
        return std::any_of(gLines.begin(), gLines.end(), [&](const LogLine& line) {
            return line.tag == tag && line.message == message;
        });
    });
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
}

std::string LogCapture::ToString() const {
    std::string text;
    for (const LogLine& line : Lines()) {
        text += std::to_string(line.priority) + " " + line.tag + ": " + line.message + "\n";
    }
    return text;
}
