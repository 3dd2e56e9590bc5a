/* Android libcutils system-property interface. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/*
 * Copies the value of \a key into \a value (at most PROPERTY_VALUE_MAX bytes
 * with the terminator). An unset or empty property yields \a default_value.
 * Returns the length of the value written.
 */
int property_get(const char* key, char* value, const char* default_value);

/* "1", "y", "yes", "on", "true" are true; "0", "n", "no", "off", "false" false. */
int8_t property_get_bool(const char* key, int8_t default_value);

/*
 * Decimal, octal (0 prefix) or hex (0x prefix) leading digits; no digits or
 * a value out of range gives the default.
 */
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);

/* Returns 0 on success, -1 when the value is too long or the key missing. */
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
