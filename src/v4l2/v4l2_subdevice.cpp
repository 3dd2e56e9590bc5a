#include <marlo/v4l2/v4l2_subdevice.h>

#include <errno.h>
#include <linux/v4l2-subdev.h>
#include <string.h>

#include <marlo/base/error.h>

namespace tessaro::marlo {

namespace {

/*
 * Issues \a request with \a record's index 0, 1, ... until the driver
 * refuses, handing each answer to \a take. The end of the enumeration is
 * reported like any failure, as "<what> failed".
 */
template <typename Record, typename Take>
void EnumerateAll(V4l2Device& device, unsigned request, Record& record, const char* what,
                  Take take) {
    record.index = 0;
    record.which = 0;
    while (device.IoCtl(request, &record) == 0) {
        take(record);
        ++record.index;
    }
    device.LogFailure(what, false, errno);
}

/* A zeroed \a Record addressed to the active configuration of \a pad. */
template <typename Record>
Record OnActivePad(unsigned pad) {
    Record record = {};
    record.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    record.pad = pad;
    return record;
}

v4l2_subdev_selection ActiveSelection(unsigned pad, unsigned target) {
    auto sel = OnActivePad<v4l2_subdev_selection>(pad);
    sel.target = target;
    return sel;
}

}  // namespace

V4l2SubDevice::V4l2SubDevice(const std::string& name) : V4l2Device(name) {}

int V4l2SubDevice::QueryCap() {
    struct v4l2_subdev_capability caps = {};
    /* Reported with the format wording, as it always was. */
    return Request(VIDIOC_SUBDEV_QUERYCAP, &caps, "get fmt", false);
}

int V4l2SubDevice::GetFormat(unsigned pad, V4l2SubdevFormat& format) {
    auto fmt = OnActivePad<v4l2_subdev_format>(pad);
    int ret = Request(VIDIOC_SUBDEV_G_FMT, &fmt, "get fmt", false);
    if (ret < 0)
        return ret;
    format.width = fmt.format.width;
    format.height = fmt.format.height;
    format.code = fmt.format.code;
    return ret;
}

int V4l2SubDevice::SetFormat(unsigned pad, const V4l2SubdevFormat& format) {
    auto fmt = OnActivePad<v4l2_subdev_format>(pad);
    fmt.format.width = format.width;
    fmt.format.height = format.height;
    fmt.format.code = format.code;
    return Request(VIDIOC_SUBDEV_S_FMT, &fmt, "set fmt", false);
}

int V4l2SubDevice::GetSelection(unsigned pad, unsigned target, V4l2Rect& rect) {
    v4l2_subdev_selection sel = ActiveSelection(pad, target);
    int ret = Request(VIDIOC_SUBDEV_G_SELECTION, &sel, "get sel", false);
    if (ret == 0)
        memcpy(&rect, &sel.r, sizeof(rect));
    return ret;
}

int V4l2SubDevice::SetSelection(unsigned pad, unsigned target, const V4l2Rect& rect) {
    v4l2_subdev_selection sel = ActiveSelection(pad, target);
    memcpy(&sel.r, &rect, sizeof(sel.r));
    return Request(VIDIOC_SUBDEV_S_SELECTION, &sel, "set sel", false);
}

int V4l2SubDevice::GetFrameIntervals(unsigned pad, unsigned* numerator, unsigned* denominator) {
    if (numerator == nullptr || denominator == nullptr)
        return RefuseMissingOutput("subdev get interval");
    struct v4l2_subdev_frame_interval fi = {};
    fi.pad = pad;
    int ret = Request(VIDIOC_SUBDEV_G_FRAME_INTERVAL, &fi, "subdev get interval", false);
    if (ret < 0)
        return ret;
    *numerator = fi.interval.numerator;
    *denominator = fi.interval.denominator;
    return ret;
}

int V4l2SubDevice::SetFrameIntervals(unsigned pad, unsigned numerator, unsigned denominator) {
    struct v4l2_subdev_frame_interval fi = {};
    fi.pad = pad;
    fi.interval.numerator = numerator;
    fi.interval.denominator = denominator;
    return Request(VIDIOC_SUBDEV_S_FRAME_INTERVAL, &fi, "subdev set interval", false);
}

int V4l2SubDevice::EnumMbusCode(unsigned pad, std::vector<unsigned>* codes) {
    if (codes == nullptr)
        return RefuseMissingOutput("subdev enum mbus code");
    codes->clear();
    struct v4l2_subdev_mbus_code_enum code = {};
    code.pad = pad;
    EnumerateAll(
        *this, VIDIOC_SUBDEV_ENUM_MBUS_CODE, code, "subdev enum mbus code",
        [codes](const v4l2_subdev_mbus_code_enum& answer) { codes->push_back(answer.code); });
    /* Every enumeration ends in a refusal, which this call reports. */
    return ERR_FAILED;
}

int V4l2SubDevice::EnumFrameSize(unsigned pad, unsigned code,
                                 std::vector<V4l2FrameSizeRange>* sizes) {
    if (sizes == nullptr)
        return RefuseMissingOutput("subdev enum frame size");
    struct v4l2_subdev_frame_size_enum fse = {};
    fse.pad = pad;
    fse.code = code;
    EnumerateAll(*this, VIDIOC_SUBDEV_ENUM_FRAME_SIZE, fse, "subdev enum frame size",
                 [sizes](const v4l2_subdev_frame_size_enum& answer) {
                     sizes->push_back({answer.min_width, answer.min_height, answer.max_width,
                                       answer.max_height, 0, 0});
                 });
    return OK;
}

std::vector<std::pair<unsigned, unsigned>> V4l2SubDevice::EnumFrameInterval(unsigned pad,
                                                                            unsigned code,
                                                                            unsigned width,
                                                                            unsigned height) {
    std::vector<std::pair<unsigned, unsigned>> intervals;
    struct v4l2_subdev_frame_interval_enum fie = {};
    fie.pad = pad;
    fie.code = code;
    fie.width = width;
    fie.height = height;
    /* This enumeration deliberately reports with the frame-size wording. */
    EnumerateAll(*this, VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL, fie, "subdev enum frame size",
                 [&intervals](const v4l2_subdev_frame_interval_enum& answer) {
                     intervals.emplace_back(answer.interval.numerator, answer.interval.denominator);
                 });
    return intervals;
}

}  // namespace tessaro::marlo
