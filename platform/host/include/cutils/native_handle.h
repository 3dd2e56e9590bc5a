/* Android's native handle: a counted list of descriptors followed by ints. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct native_handle {
    int version; /* sizeof(native_handle_t) */
    int numFds;
    int numInts;
    int data[0]; /* numFds descriptors, then numInts ints */
} native_handle_t;

typedef const native_handle_t* buffer_handle_t;

/* Allocates a handle with room for the given counts; null on failure. */
native_handle_t* native_handle_create(int numFds, int numInts);
/* Closes the handle's descriptors (does not free it). */
int native_handle_close(const native_handle_t* h);
/* Frees a handle made by native_handle_create (does not close). */
int native_handle_delete(native_handle_t* h);
/* A new handle with duplicated descriptors and copied ints. */
native_handle_t* native_handle_clone(const native_handle_t* handle);

#ifdef __cplusplus
}
#endif
