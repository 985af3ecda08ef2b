#include "tools/Properties.h"

#include "tools/TextLines.h"

namespace vymm {

bool ParsePropertyAssignment(const std::string& text, std::string* key, std::string* value) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        return false;
    }
    *key = Trim(text.substr(0, equals));
    *value = Trim(text.substr(equals + 1));
    return !key->empty() && key->find_first_of(kBlanks) == std::string::npos;
}

bool ParsePropertyFile(std::istream& in, const std::string& name, PropertyMap* props,
                       std::string* error) {
    PropertyMap read;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') {
            continue;
        }
        std::string key;
        std::string value;
        if (!ParsePropertyAssignment(trimmed, &key, &value)) {
            *error = LinePrefix(name, number) + "not a key=value line: " + trimmed;
            return false;
        }
        read[key] = value;
    }
    for (auto& [key, value] : read) {
        (*props)[key] = value;
    }
    return true;
}

}  // namespace vymm
