// The events that the host reporting library recorded, one JSON object a
// line (see its README section), turned into one readable line each.
#ifndef VYMM_TOOLS_EVENT_LOG_H
#define VYMM_TOOLS_EVENT_LOG_H

#include <string>

namespace vymm {

// `916600038 NEW_PKG="new.pkg" PRE_PKG="old.pkg"`: the id, then time= and
// paths= when set, then each parameter as NAME=VALUE (#ID=VALUE for one set
// by number); lists in [], nested events in {}. False for a line that is no
// recorded event.
bool FormatEvent(const std::string& jsonLine, std::string* text);

}  // namespace vymm

#endif
