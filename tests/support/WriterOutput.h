// What a writer puts out: the events the host reporting library sent, and the
// text of a dump.
#ifndef VYMM_TESTS_WRITER_OUTPUT_H
#define VYMM_TESTS_WRITER_OUTPUT_H

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

private:
    std::string mPath;
};

// What writer.Dump writes, read back.
std::string DumpText(android::MediaLogBase& writer);

#endif
