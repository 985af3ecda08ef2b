#include "tools/Journal.h"

#include <stdio.h>

#include <vector>

#include "writers/WriterStore.h"

namespace vymm {

namespace {

using android::WriterStore;

std::string Readable(const std::string& bytes) {
    std::string text;
    for (const unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            text += static_cast<char>(c);
        } else {
            char escaped[5];
            snprintf(escaped, sizeof(escaped), "\\x%02X", c);
            text += escaped;
        }
    }
    return text;
}

bool SnapshotText(const std::string& bytes, std::string* text, std::string* error) {
    uint32_t gen = 0;
    std::string payload;
    if (!WriterStore::ParseSnapshot(bytes, &gen, &payload)) {
        *error = "a snapshot of another format version, too long or damaged";
        return false;
    }
    *text = "snapshot gen " + std::to_string(gen) + ": " + Readable(payload) + "\n";
    return true;
}

}  // namespace

bool JournalText(const std::string& bytes, std::string* text, std::string* error) {
    text->clear();
    if (WriterStore::IsSnapshot(bytes)) {
        return SnapshotText(bytes, text, error);
    }
    std::vector<WriterStore::Record> records;
    bool damaged = false;
    const size_t sound = WriterStore::ParseRecords(bytes.data(), bytes.size(), &records, &damaged);
    size_t offset = 0;
    for (const WriterStore::Record& record : records) {
        *text += "@" + std::to_string(offset) + " gen " + std::to_string(record.generation) +
                 ": " + Readable(record.operation) + "\n";
        offset += WriterStore::RECORD_HEADER_BYTES + record.operation.size();
    }
    if (damaged) {
        *error = "damaged or short record at byte " + std::to_string(sound) +
                 "; what follows is not read";
    }
    return !damaged;
}

}  // namespace vymm
