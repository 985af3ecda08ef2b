/*
 * Bounds-checked memory and formatting functions of the device's C library,
 * argument order destination, destination size, count.
 */
#ifndef VYMM_BOUNDS_CHECKED_H
#define VYMM_BOUNDS_CHECKED_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills count bytes of dest with c. Returns 0, or non-zero (writing at most
 * destMax bytes) for a null dest, destMax 0 or count > destMax. */
int memset_s(void* dest, size_t destMax, int c, size_t count);

/* Formats at most count characters and a NUL into dest. Returns the number of
 * characters written, or -1 when the text was cut to count characters or on
 * an error (null dest or format, destMax 0, count >= destMax). */
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
        __attribute__((__format__(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
