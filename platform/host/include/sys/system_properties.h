/*
 * Android bionic's property-area interface, the part a process uses to
 * notice property changes cheaply: a property's change serial and the
 * area serial that moves when a property is added.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct prop_info prop_info;

/*
 * The record of a property that has a value, or NULL. A record, once
 * returned, stays valid for the life of the process.
 */
const prop_info* __system_property_find(const char* name);

/* Changes whenever the property's value changes. */
uint32_t __system_property_serial(const prop_info* pi);

/* Changes whenever a property gains a value it did not have. */
uint32_t __system_property_area_serial(void);

#ifdef __cplusplus
}
#endif
