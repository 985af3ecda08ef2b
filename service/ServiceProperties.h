// The "ro.media.*" properties, read once at start-up by the service and its
// send thread.
#ifndef VYMM_SERVICE_SERVICE_PROPERTIES_H
#define VYMM_SERVICE_SERVICE_PROPERTIES_H

#include <stdint.h>

namespace android {

// The value as a number (atoi: text that is not a number reads as 0), or
// defaultValue's when the property is unset.
int32_t ReadIntProperty(const char* key, const char* defaultValue);

// "ro.media.debuggable" begins with "true" (default "false").
bool ReadDebuggable();

}  // namespace android

#endif
