// Host stand-in for the one cutils function the library uses; Debian's libcutils lacks it.
#pragma once

#define PROPERTY_VALUE_MAX 92

// Copies the property's value, or default_value when it is unset or empty, into value
// (PROPERTY_VALUE_MAX bytes) and returns its length.
int property_get(const char* key, char* value, const char* default_value);
