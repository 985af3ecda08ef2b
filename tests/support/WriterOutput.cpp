#include "support/WriterOutput.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/TestEnv.h"

EventLog::EventLog() : mPath(std::filesystem::current_path() / "events.jsonl") {
    setenv("VEXEL_EVENT_LOG", mPath.c_str(), 1);
}

EventLog::~EventLog() { unsetenv("VEXEL_EVENT_LOG"); }

std::vector<std::string> EventLog::Lines() const {
    std::vector<std::string> lines;
    std::ifstream file(mPath);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> EventLog::WaitFor(
        const std::function<bool(const std::vector<std::string>&)>& done,
        std::chrono::milliseconds timeout) const {
    std::vector<std::string> lines;
    Eventually([&] { return done(lines = Lines()); }, timeout);
    return lines;
}

std::vector<std::string> UploadsOf(const std::vector<std::string>& lines, int eventId) {
    const std::string head = "{\"id\":" + std::to_string(eventId) + ",";
    std::vector<std::string> uploads;
    for (const std::string& line : lines) {
        if (line.rfind(head, 0) == 0) {
            uploads.push_back(line);
        }
    }
    return uploads;
}

long IntParam(const std::string& line, const std::string& name) {
    const std::string key = "{\"name\":\"" + name + "\",\"int\":";
    const size_t at = line.find(key);
    return at != std::string::npos ? atol(line.c_str() + at + key.size()) : -1;
}

std::string StrParam(const std::string& line, const std::string& name) {
    const std::string key = "{\"name\":\"" + name + "\",\"str\":\"";
    const size_t at = line.find(key);
    if (at == std::string::npos) {
        return "(none)";
    }
    const size_t begin = at + key.size();
    return line.substr(begin, line.find('"', begin) - begin);
}

std::string WrittenText(const std::function<void(int fd)>& writeTo) {
    // A memory file rather than a pipe: a dump larger than a pipe's buffer
    // would block its one write.
    const int fd = memfd_create("dump", MFD_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("memfd_create failed");
    }
    writeTo(fd);
    std::string text;
    char buffer[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

std::string DumpText(android::MediaLogBase& writer) {
    return WrittenText([&writer](int fd) { writer.Dump(fd); });
}
