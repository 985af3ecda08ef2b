// Captures every platform log line of the process, with priority and tag,
// through liblog's own logger hook. All captures share one buffer; creating
// one installs the hook (debug lines included) and empties the buffer.
#ifndef VYMM_TESTS_LOG_CAPTURE_H
#define VYMM_TESTS_LOG_CAPTURE_H

#include <chrono>
#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

class LogCapture {
public:
    LogCapture();

    std::vector<LogLine> Lines() const;
    // Lines whose priority, tag and whole message match exactly.
    size_t Count(int priority, const std::string& tag, const std::string& message) const;
    bool Contains(int priority, const std::string& tag, const std::string& message) const {
        return Count(priority, tag, message) > 0;
    }
    // Lines of this tag whose message contains text.
    size_t CountContaining(const std::string& tag, const std::string& text) const;
    // Wait until a line of this tag with exactly this message is captured;
    // false when timeout passes first.
    bool WaitFor(const std::string& tag, const std::string& message,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void Clear();
    // All captured lines, one per line, for failure messages.
    std::string ToString() const;
};

#endif
