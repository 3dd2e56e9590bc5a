/* A sub-device with pads: formats, selections, intervals and enumerations. */
#include <errno.h>
#include <string.h>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

FakeSubdevNode::FakeSubdevNode(std::string path, SubdevNodeConfig config)
    : FakeNode(std::move(path)), config_(std::move(config)) {}

SubdevPad FakeSubdevNode::Pad(uint32_t pad) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pad < config_.pads.size() ? config_.pads[pad] : SubdevPad{};
}

SubdevPad* FakeSubdevNode::FindPad(uint32_t pad) {
    return pad < config_.pads.size() ? &config_.pads[pad] : nullptr;
}

int FakeSubdevNode::Ioctl(OpenFile, unsigned long request, void* arg,
                          std::unique_lock<std::mutex>&) {
    switch (request) {
        case VIDIOC_SUBDEV_QUERYCAP: {
            auto* caps = static_cast<v4l2_subdev_capability*>(arg);
            memset(caps, 0, sizeof(*caps));
            caps->version = config_.version;
            caps->capabilities = config_.capabilities;
            return 0;
        }
        case VIDIOC_SUBDEV_G_FMT:
        case VIDIOC_SUBDEV_S_FMT: {
            auto* fmt = static_cast<v4l2_subdev_format*>(arg);
            SubdevPad* pad = FindPad(fmt->pad);
            if (pad == nullptr)
                return EINVAL;
            if (request == VIDIOC_SUBDEV_S_FMT)
                pad->format = fmt->format;
            fmt->format = pad->format;
            return 0;
        }
        case VIDIOC_SUBDEV_G_SELECTION:
        case VIDIOC_SUBDEV_S_SELECTION: {
            auto* sel = static_cast<v4l2_subdev_selection*>(arg);
            SubdevPad* pad = FindPad(sel->pad);
            if (pad == nullptr)
                return EINVAL;
            if (request == VIDIOC_SUBDEV_S_SELECTION) {
                pad->selections[sel->target] = sel->r;
                return 0;
            }
            auto it = pad->selections.find(sel->target);
            if (it == pad->selections.end())
                return EINVAL;
            sel->r = it->second;
            return 0;
        }
        case VIDIOC_SUBDEV_G_FRAME_INTERVAL:
        case VIDIOC_SUBDEV_S_FRAME_INTERVAL: {
            auto* fi = static_cast<v4l2_subdev_frame_interval*>(arg);
            SubdevPad* pad = FindPad(fi->pad);
            if (pad == nullptr)
                return EINVAL;
            if (request == VIDIOC_SUBDEV_S_FRAME_INTERVAL) {
                if (fi->interval.denominator == 0)
                    return EINVAL;
                pad->interval = fi->interval;
            }
            fi->interval = pad->interval;
            return 0;
        }
        case VIDIOC_SUBDEV_ENUM_MBUS_CODE: {
            auto* code = static_cast<v4l2_subdev_mbus_code_enum*>(arg);
            SubdevPad* pad = FindPad(code->pad);
            if (pad == nullptr || code->index >= pad->mbusCodes.size())
                return EINVAL;
            code->code = pad->mbusCodes[code->index];
            return 0;
        }
        case VIDIOC_SUBDEV_ENUM_FRAME_SIZE: {
            auto* fse = static_cast<v4l2_subdev_frame_size_enum*>(arg);
            SubdevPad* pad = FindPad(fse->pad);
            if (pad == nullptr)
                return EINVAL;
            auto it = pad->frameSizes.find(fse->code);
            if (it == pad->frameSizes.end() || fse->index >= it->second.size())
                return EINVAL;
            const SubdevFrameSize& size = it->second[fse->index];
            fse->min_width = size.minWidth;
            fse->min_height = size.minHeight;
            fse->max_width = size.maxWidth;
            fse->max_height = size.maxHeight;
            return 0;
        }
        case VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL: {
            auto* fie = static_cast<v4l2_subdev_frame_interval_enum*>(arg);
            SubdevPad* pad = FindPad(fie->pad);
            if (pad == nullptr)
                return EINVAL;
            auto it = pad->intervals.find(fie->code);
            if (it == pad->intervals.end() || fie->index >= it->second.size())
                return EINVAL;
            fie->interval = it->second[fie->index];
            return 0;
        }
        default:
            return ENOTTY;
    }
}

void FakeSubdevNode::Describe(unsigned long request, const void* arg, RequestRecord& r) const {
    switch (request) {
        case VIDIOC_SUBDEV_G_FMT:
        case VIDIOC_SUBDEV_S_FMT: {
            auto* fmt = static_cast<const v4l2_subdev_format*>(arg);
            r.pad = fmt->pad;
            r.which = fmt->which;
            r.width = fmt->format.width;
            r.height = fmt->format.height;
            r.code = fmt->format.code;
            break;
        }
        case VIDIOC_SUBDEV_G_SELECTION:
        case VIDIOC_SUBDEV_S_SELECTION: {
            auto* sel = static_cast<const v4l2_subdev_selection*>(arg);
            r.pad = sel->pad;
            r.which = sel->which;
            r.target = sel->target;
            r.flags = sel->flags;
            r.width = sel->r.width;
            r.height = sel->r.height;
            break;
        }
        case VIDIOC_SUBDEV_G_FRAME_INTERVAL:
        case VIDIOC_SUBDEV_S_FRAME_INTERVAL:
            r.pad = static_cast<const v4l2_subdev_frame_interval*>(arg)->pad;
            break;
        case VIDIOC_SUBDEV_ENUM_MBUS_CODE: {
            auto* code = static_cast<const v4l2_subdev_mbus_code_enum*>(arg);
            r.pad = code->pad;
            r.index = code->index;
            r.which = code->which;
            break;
        }
        case VIDIOC_SUBDEV_ENUM_FRAME_SIZE: {
            auto* fse = static_cast<const v4l2_subdev_frame_size_enum*>(arg);
            r.pad = fse->pad;
            r.index = fse->index;
            r.code = fse->code;
            r.which = fse->which;
            break;
        }
        case VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL: {
            auto* fie = static_cast<const v4l2_subdev_frame_interval_enum*>(arg);
            r.pad = fie->pad;
            r.index = fie->index;
            r.code = fie->code;
            r.width = fie->width;
            r.height = fie->height;
            r.which = fie->which;
            break;
        }
        default:
            break;
    }
}

}  // namespace marlo_fake
