// `vymm journal`: a writer's state file (a journal or a snapshot) as text,
// one line per record, for a person reading what a service kept.
#ifndef VYMM_TOOLS_JOURNAL_H
#define VYMM_TOOLS_JOURNAL_H

#include <string>

namespace vymm {

// The lines of bytes, a journal or a snapshot: "@OFFSET gen G: OPERATION" per
// journal record, "snapshot gen G: PAYLOAD" for a snapshot, bytes outside
// printable ASCII as \xNN. False at a damaged or short record (the lines
// before it are in text), with the reason in error.
bool JournalText(const std::string& bytes, std::string* text, std::string* error);

}  // namespace vymm

#endif
