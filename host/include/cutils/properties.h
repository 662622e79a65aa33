// Host stand-in for <cutils/properties.h>. On the host a property is the file
// <root>/properties/<name>; its text up to the first newline is the value.
#pragma once

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value (or default_value when the property is unset) into value, which holds
// PROPERTY_VALUE_MAX bytes, and returns the length of the copied text.
int property_get(const char* key, char* value, const char* default_value);
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
