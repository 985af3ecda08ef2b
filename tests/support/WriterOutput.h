// What a writer puts out: the events the host reporting library sent, and the
// text of a dump.
#ifndef VYMM_TESTS_WRITER_OUTPUT_H
#define VYMM_TESTS_WRITER_OUTPUT_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "writers/MediaLogBase.h"

// Points the host reporting library's event log at a file of the working
// directory of construction (make a TempWorkDir first) for the scope.
class EventLog {
public:
    EventLog();
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    // One JSON line per event sent, in order.
    std::vector<std::string> Lines() const;
    // Polls Lines() until done accepts them or timeout passes; the last read.
    std::vector<std::string> WaitFor(
            const std::function<bool(const std::vector<std::string>&)>& done,
            std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    std::string mPath;
};

// The lines of an event log that send event id.
std::vector<std::string> UploadsOf(const std::vector<std::string>& lines, int eventId);

// The value of the integer parameter name in an event's line, or -1.
long IntParam(const std::string& line, const std::string& name);
// The value of the text parameter name (one without quotes), or "(none)".
std::string StrParam(const std::string& line, const std::string& name);

// What writeTo writes to the descriptor it is given, read back.
std::string WrittenText(const std::function<void(int fd)>& writeTo);

// What writer.Dump writes, read back.
std::string DumpText(android::MediaLogBase& writer);

#endif
