/*
 * libmarlo: every public header of the library in one include.
 */
#pragma once

#include <marlo/base/error.h>
#include <marlo/base/io_thread.h>
#include <marlo/base/logger.h>
#include <marlo/base/thread.h>
#include <marlo/base/unique_fd.h>
#include <marlo/base/version.h>
#include <marlo/buffer/dma_buffer.h>
#include <marlo/buffer/drm_device.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/frame_buffer_allocator.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/camera/hal_camera.h>
#include <marlo/camera/safe_list.h>
#include <marlo/camera/virtual_camera.h>
#include <marlo/config/config.h>
#include <marlo/debug/debug_helper.h>
#include <marlo/imgproc/nax_image_operator.h>
#include <marlo/stream/v4l2_stream.h>
#include <marlo/v4l2/media_device.h>
#include <marlo/v4l2/v4l2_camera.h>
#include <marlo/v4l2/v4l2_device.h>
#include <marlo/v4l2/v4l2_format.h>
#include <marlo/v4l2/v4l2_subdevice.h>
#include <marlo/v4l2/v4l2_video_device.h>
