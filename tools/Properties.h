// Properties for the host, as a device reads them from build.prop: `key=value`
// lines, `#` comments and blank lines. Plain functions.
#ifndef VYMM_TOOLS_PROPERTIES_H
#define VYMM_TOOLS_PROPERTIES_H

#include <istream>
#include <map>
#include <string>

namespace vymm {

using PropertyMap = std::map<std::string, std::string>;

// One `key=value`, blanks around either trimmed; false for a line without
// '=' or with an empty key or a blank inside the key.
bool ParsePropertyAssignment(const std::string& text, std::string* key, std::string* value);

// Adds the file's properties to props, later lines winning. On a malformed
// line adds nothing and says "NAME:LINE: ..."; name labels in for messages.
bool ParsePropertyFile(std::istream& in, const std::string& name, PropertyMap* props,
                       std::string* error);

}  // namespace vymm

#endif
