/*
 * Controls of the recording fake engine library (built as libnax.so for the
 * operator tests). Tests find these with dlsym on the loaded library.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <nax/nax.h>

/* One call into the engine with every argument it received. */
typedef struct fake_nax_call {
    char name[32]; /* the entry's source name, e.g. "nax_crop" */
    nax_buffer_t src;
    nax_buffer_t dst;
    nax_buffer_t pat;
    nax_rect rect;
    nax_rect srect;
    nax_rect drect;
    nax_rect prect;
    double fx;
    double fy;
    int interpolation;
    int srcFormat;
    int dstFormat;
    int mode; /* flip mode, cvtcolor mode */
    int rotation;
    int sync;
    int acquireFence;
    int usage;
    int* releaseFence;
    nax_opt* opt;
    uint64_t address; /* fd, physical or CPU address, handle or fence */
    int hasParam;
    nax_import_param_t param;
    int width, height, wstride, hstride, format; /* wrap entries */
} fake_nax_call;

extern "C" {

/* Forgets every call and restores the default results. */
void fake_nax_reset(void);
size_t fake_nax_call_count(void);
/* Copies call \a index; 0 on success, -1 when there is no such call. */
int fake_nax_get_call(size_t index, fake_nax_call* call);
/*
 * What the import entries return: a negative value hands out fresh handles
 * (1, 2, 3, ... from the last reset), anything else is returned as is.
 */
void fake_nax_set_import_result(int64_t result);
/* What the seven operations, release and sync return (default 0). */
void fake_nax_set_op_result(int result);
/* What the operations store through a non-null release fence (default -1). */
void fake_nax_set_release_fence(int fence);
/*
 * With \a on, every operation stores a fresh duplicate of the release fence
 * (the caller owns it) instead of the descriptor itself.
 */
void fake_nax_set_release_fence_dup(int on);
/* Imported handles not released yet. */
size_t fake_nax_live_handles(void);

typedef void (*fake_nax_reset_t)(void);
typedef size_t (*fake_nax_call_count_t)(void);
typedef int (*fake_nax_get_call_t)(size_t, fake_nax_call*);
typedef void (*fake_nax_set_import_result_t)(int64_t);
typedef void (*fake_nax_set_op_result_t)(int);
typedef void (*fake_nax_set_release_fence_t)(int);
typedef size_t (*fake_nax_live_handles_t)(void);
typedef void (*fake_nax_set_release_fence_dup_t)(int);

}  // extern "C"
