// property_get / property_set over libbase's in-process host property store,
// so tests and the host launcher set properties with android::base::SetProperty.
#include <cutils/properties.h>

#include <string.h>

#include <string>

#include <android-base/properties.h>

int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) {
        return -1;
    }
    const std::string stored = key != nullptr ? android::base::GetProperty(key, "") : "";
    const char* source = !stored.empty() ? stored.c_str() : default_value;
    if (source == nullptr) {
        value[0] = '\0';
        return 0;
    }
    const size_t length = strnlen(source, PROPERTY_VALUE_MAX - 1);
    memcpy(value, source, length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr) {
        return -1;
    }
    return android::base::SetProperty(key, value != nullptr ? value : "") ? 0 : -1;
}
