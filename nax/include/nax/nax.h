/*
 * The 2D raster engine's user-space interface (libnax.so).
 *
 * libmarlo opens the engine library at run time and resolves these entry
 * points by name: the seven operations by their C++ (mangled) names, the
 * buffer and sync entry points by their plain C names. The board's vendor
 * library and the software engine of this repository both implement it.
 */
#pragma once

#include <stdint.h>

/*
 * Engine format codes: a format index shifted left by 8. The codes follow
 * V4L2's naming of the same formats, so each code names the memory layout
 * of the V4L2 format of that name: RGBA_8888 is "AB24" (V4L2 RGBA32, bytes
 * R,G,B,A) and ARGB_8888 is "BA24" (ARGB32, bytes A,R,G,B), but ABGR_8888
 * is "AR24" (V4L2 ABGR32, bytes B,G,R,A) and BGRA_8888 is "RA24" (BGRA32,
 * bytes A,B,G,R): V4L2 names those four 32-bit layouts (and their X
 * variants) by their little-endian word, not by their bytes. The comments
 * below give each layout in memory order. YUV is BT.601 limited range; the
 * grey formats carry its luma, so grey to and from YUV copies luma
 * unchanged.
 */
enum nax_format {
    NAX_FORMAT_RGBA_8888 = 0x0 << 8,    /* "AB24": bytes R,G,B,A */
    NAX_FORMAT_RGBX_8888 = 0x1 << 8,    /* "XB24": bytes R,G,B,X */
    NAX_FORMAT_RGB_888 = 0x2 << 8,      /* "RGB3": bytes R,G,B */
    NAX_FORMAT_BGRA_8888 = 0x3 << 8,    /* "RA24": bytes A,B,G,R */
    NAX_FORMAT_RGB_565 = 0x4 << 8,      /* "RGBP": 16-bit, R in the high 5 bits */
    NAX_FORMAT_BGR_888 = 0x7 << 8,      /* "BGR3": bytes B,G,R */
    NAX_FORMAT_YCbCr_422_SP = 0x8 << 8, /* NV16: Y plane, interleaved Cb,Cr at full height */
    NAX_FORMAT_YCbCr_420_SP = 0xA << 8, /* NV12: Y plane, interleaved Cb,Cr at half height */
    NAX_FORMAT_YCbCr_420_P = 0xB << 8,  /* I420: Y, Cb, Cr planes */
    NAX_FORMAT_YCrCb_422_SP = 0xC << 8, /* NV61 */
    NAX_FORMAT_YCrCb_420_SP = 0xE << 8, /* NV21 */
    NAX_FORMAT_YCrCb_420_P = 0xF << 8,  /* YV12: Y, Cr, Cb planes */
    NAX_FORMAT_Y4 = 0x14 << 8,          /* 4-bit grey, one pixel a byte in the high nibble */
    NAX_FORMAT_Y8 = 0x15 << 8,          /* 8-bit grey */
    NAX_FORMAT_BGRX_8888 = 0x16 << 8,   /* "RX24": bytes X,B,G,R */
    NAX_FORMAT_YVYU_422 = 0x18 << 8,    /* packed Y0 Cr Y1 Cb */
    NAX_FORMAT_VYUY_422 = 0x1A << 8,    /* packed Cr Y0 Cb Y1 */
    NAX_FORMAT_YUYV_422 = 0x1C << 8,    /* packed Y0 Cb Y1 Cr */
    NAX_FORMAT_UYVY_422 = 0x1E << 8,    /* packed Cb Y0 Cr Y1 */
    NAX_FORMAT_ARGB_8888 = 0x28 << 8,   /* "BA24": bytes A,R,G,B */
    NAX_FORMAT_XRGB_8888 = 0x29 << 8,   /* "BX24": bytes X,R,G,B */
    NAX_FORMAT_ABGR_8888 = 0x2C << 8,   /* "AR24": bytes B,G,R,A */
    NAX_FORMAT_XBGR_8888 = 0x2D << 8,   /* "XR24": bytes B,G,R,X */
};

/* Mode bits of the `usage` argument of nax_process(). */
#define NAX_USAGE_SYNC 0x80000    /* the job is finished when the call returns */
#define NAX_USAGE_ASYNC 0x4000000 /* the job may finish later; see releaseFence */

/*
 * Transform bits of the `usage` argument of nax_process(), which clients
 * set in FrameBufferInfo::transform. Rotation is clockwise and applied
 * before mirroring; at most one rotation bit is set.
 */
#define NAX_TRANSFORM_ROT_90 0x1
#define NAX_TRANSFORM_ROT_180 0x2
#define NAX_TRANSFORM_ROT_270 0x4
#define NAX_TRANSFORM_FLIP_H 0x8  /* mirror left to right */
#define NAX_TRANSFORM_FLIP_V 0x10 /* mirror top to bottom */
#define NAX_TRANSFORM_MASK 0x1F

/* Rotation angles of nax_rotate() and mirror modes of nax_flip(). */
#define NAX_ROTATE_90 90
#define NAX_ROTATE_180 180
#define NAX_ROTATE_270 270
#define NAX_FLIP_H 0
#define NAX_FLIP_V 1

/* A rectangle in pixels; all zero means the whole image. */
typedef struct nax_rect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
} nax_rect;

/* An image as the engine sees it: an imported handle with its geometry. */
typedef struct nax_buffer {
    uint32_t handle; /* from nax_import_*; 0 is no image */
    int32_t width;   /* pixels */
    int32_t height;  /* rows */
    int32_t wstride; /* row pitch in pixels */
    int32_t hstride; /* rows between planes */
    int32_t format;  /* enum nax_format */
    uint64_t reserved[2];
} nax_buffer_t;

/* Extra options of nax_process(); NULL asks for none. */
typedef struct nax_opt {
    uint32_t color;        /* fill colour for the pattern, RGBA */
    uint32_t global_alpha; /* 0..255, blending with the pattern */
    uint32_t reserved[6];
} nax_opt;

/* What nax_import_*() needs to know of the memory behind a handle. */
typedef struct nax_import_param {
    uint32_t width;
    uint32_t height;
    uint32_t format; /* enum nax_format */
} nax_import_param_t;

/*
 * Operations. `sync` 1 finishes the job before returning; 0 may leave it
 * running and then stores in *releaseFence a fence that signals its end (or
 * -1 when it is already done). Each returns 0 or a negative errno value.
 *
 * The software engine (libnax.so built from nax/ for machines without the
 * hardware block) finishes every job, asynchronous ones included, before it
 * returns and always stores -1 in *releaseFence: callers that merge and
 * wait on fences skip -1. The calling thread does the job, with the help
 * of the engine's worker threads for large ones (see nax_sw.h). Every entry point may be called from any thread at once;
 * a handle released while another thread's job uses it keeps its memory
 * mapped until that job ends.
 *
 * The single steps of the software engine: copy, rotate and flip keep the
 * format and need the destination size the step produces; crop places the
 * rectangle (all zero: the whole source) unscaled at the destination's top
 * left; resize fills the destination, or with fx and fy > 0 its top-left
 * round(width * fx) x round(height * fy) pixels (interpolation 0 nearest,
 * 1 and 2 bilinear, 3 box); cvtcolor reads and writes the memory in the
 * formats it is given, sizes equal, mode 0 (BT.601 limited range) only.
 * A zero wstride or hstride means the width or height.
 *
 * Plane layout the engine assumes, strides in pixels as in nax_buffer_t:
 * packed RGB rows are wstride * bytes-per-pixel; packed 4:2:2 rows are
 * wstride rounded up to even, times 2; grey rows (Y8, Y4) are wstride bytes;
 * the Y plane of YUV formats is wstride bytes by hstride rows, followed by
 * the chroma: semi-planar rows of wstride rounded up to even bytes (hstride
 * rows for 4:2:2, half of hstride rounded up for 4:2:0), planar 4:2:0 two
 * planes of (wstride + 1) / 2 bytes by (hstride + 1) / 2 rows.
 */
int nax_resize(nax_buffer_t src, nax_buffer_t dst, double fx, double fy, int interpolation,
               int sync, int* releaseFence);
int nax_crop(nax_buffer_t src, nax_buffer_t dst, nax_rect rect, int sync, int* releaseFence);
int nax_cvtcolor(nax_buffer_t src, nax_buffer_t dst, int srcFormat, int dstFormat, int mode,
                 int sync, int* releaseFence);
int nax_rotate(nax_buffer_t src, nax_buffer_t dst, int rotation, int sync, int* releaseFence);
int nax_flip(nax_buffer_t src, nax_buffer_t dst, int mode, int sync, int* releaseFence);
int nax_copy(nax_buffer_t src, nax_buffer_t dst, int sync, int* releaseFence);
/*
 * Crops srect of src, scales it into drect of dst, converting the format
 * and applying the transform bits of `usage`; the pattern is not read when
 * its handle is 0. The mode bits of `usage` choose synchronous or not. An
 * acquireFence >= 0 is waited for before the job starts and stays the
 * caller's. The software engine blends no pattern: a pattern handle makes
 * it answer -EOPNOTSUPP.
 */
int nax_process(nax_buffer_t src, nax_buffer_t dst, nax_buffer_t pat, nax_rect srect,
                nax_rect drect, nax_rect prect, int acquireFence, int* releaseFence, nax_opt* opt,
                int usage);

extern "C" {

/*
 * Buffer descriptions and imports; a returned handle of 0 is a failure.
 * An fd import maps the memory once and refers to the file, not to the
 * descriptor, which the caller keeps and may close. The software engine
 * shares one mapping among all handles of a file (by device and inode)
 * and keeps it for 2 s after the last handle is released, so that the
 * next frame's import of the same buffer is cheap; memory its owner frees
 * therefore stays allocated for up to that long. A CPU-address import
 * carries no size: the engine trusts the geometry it is wrapped with.
 * Physical addresses cannot be reached by the software engine (handle 0).
 * nax_wrap_fd/paddr/vaddr import and wrap in one call; their handle is
 * released with nax_release_handle() like any other.
 */
nax_buffer_t nax_wrap_handle(uint32_t handle, int width, int height, int wstride, int hstride,
                             int format);
nax_buffer_t nax_wrap_fd(int fd, int width, int height, int wstride, int hstride, int format);
nax_buffer_t nax_wrap_paddr(uint64_t paddr, int width, int height, int wstride, int hstride,
                            int format);
nax_buffer_t nax_wrap_vaddr(uintptr_t vaddr, int width, int height, int wstride, int hstride,
                            int format);
uint32_t nax_import_fd(int fd, nax_import_param_t* param);
uint32_t nax_import_paddr(uint64_t paddr, nax_import_param_t* param);
uint32_t nax_import_vaddr(uintptr_t vaddr, nax_import_param_t* param);
int nax_release_handle(uint32_t handle);
/*
 * Waits for a release fence of an asynchronous job and closes it; -1 (no
 * fence, the job is done) returns 0 at once.
 */
int nax_sync(int fence);

}  // extern "C"
