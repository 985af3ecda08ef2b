#include <bounds_checked.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return ERANGE;
    }
    memset(dest, c, count);
    return 0;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
    if (dest == nullptr || destMax == 0) {
        return -1;
    }
    if (count >= destMax || format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int full = vsnprintf(dest, count + 1, format, args);
    va_end(args);
    if (full < 0) {
        dest[0] = '\0';
        return -1;
    }
    return static_cast<size_t>(full) > count ? -1 : full;
}
