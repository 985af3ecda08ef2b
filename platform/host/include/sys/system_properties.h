/*
 * A Linux host has no property service. <cutils/properties.h> needs only the
 * two limits from here; the store itself is libbase's (see properties.cpp).
 */
#ifndef _INCLUDE_SYS_SYSTEM_PROPERTIES_H
#define _INCLUDE_SYS_SYSTEM_PROPERTIES_H

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#endif
