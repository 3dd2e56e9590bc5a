#include "capture_demo.h"
#include "demo_common.h"
#include "frame_stats.h"
#include "stream_health.h"

#include <android/sync.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/frame_buffer_allocator.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/camera/stream_event.h>
#include <marlo/stream/v4l2_stream.h>
#include <nax/nax.h>

namespace marlo_demo {

namespace {

using tessaro::marlo::FourccFormat;
using tessaro::marlo::FrameBuffer;
using tessaro::marlo::FrameBufferInfo;
using tessaro::marlo::FrameBufferRect;
using tessaro::marlo::GrallocFrameBufferAllocator;
using tessaro::marlo::V4l2Stream;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;
using Clock = std::chrono::steady_clock;

/* CPU read and write often: the demo reads the frames it writes to files. */
constexpr uint64_t kCpuUsage = 0x33;
/* Bound of the wait for a conversion still running when a set arrives. */
constexpr int kFenceWaitMs = 1000;

/* What the second buffer of every set of a client shows. */
enum class Variant { kCrop, kRot90, kRot180, kRot270, kFlip };

struct ClientLayout {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t fourcc = 0;
    Variant variant = Variant::kCrop;
};

struct Options {
    std::string device = "/dev/video0";
    uint32_t width = 1280;
    uint32_t height = 720;
    uint32_t fourcc = tessaro::marlo::FOURCC_YUYV;
    std::vector<ClientLayout> clients;
    int firstClientId = 0;
    int sets = 3;
    int frames = 60;
    int seconds = 10;
    /* 0: the configured rate, else the device's own. */
    int fps = 0;
    std::string outDir = ".";
    bool verbose = false;
};

const char* VariantName(Variant variant) {
    switch (variant) {
        case Variant::kCrop:
            return "crop";
        case Variant::kRot90:
            return "rot90";
        case Variant::kRot180:
            return "rot180";
        case Variant::kRot270:
            return "rot270";
        case Variant::kFlip:
            return "flip";
    }
    return "?";
}

/* Formats the 2D engine reads from a capture buffer. */
bool IsCaptureFormat(uint32_t code) {
    using namespace tessaro::marlo;
    static const uint32_t formats[] = {
        FOURCC_RGB3, FOURCC_BGR3, FOURCC_RGBP, FOURCC_AB24, FOURCC_XB24, FOURCC_RA24, FOURCC_RX24,
        FOURCC_BA24, FOURCC_AR24, FOURCC_XR24, FOURCC_NV12, FOURCC_NV21, FOURCC_NV16, FOURCC_NV61,
        FOURCC_YU12, FOURCC_YV12, FOURCC_YUYV, FOURCC_YVYU, FOURCC_UYVY, FOURCC_VYUY,
    };
    for (uint32_t format : formats) {
        if (format == code)
            return true;
    }
    return false;
}

/* Formats a client buffer can have: the engine writes them and gralloc allocates them. */
bool IsClientFormat(uint32_t code) {
    using namespace tessaro::marlo;
    static const uint32_t formats[] = {
        FOURCC_RGB3, FOURCC_RGBP, FOURCC_AB24, FOURCC_XB24, FOURCC_RA24,
        FOURCC_NV12, FOURCC_NV21, FOURCC_NV16, FOURCC_NV61, FOURCC_YU12,
        FOURCC_YV12, FOURCC_YUYV, FOURCC_YVYU, FOURCC_UYVY, FOURCC_VYUY,
    };
    for (uint32_t format : formats) {
        if (format == code)
            return true;
    }
    return false;
}

/* WxH:FOURCC[:crop|rot90|rot180|rot270|flip] */
bool ParseClient(const std::string& text, ClientLayout* layout) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ':');)
        parts.push_back(part);
    if (parts.size() < 2 || parts.size() > 3)
        return false;
    if (!ParseSize(parts[0], &layout->width, &layout->height) ||
        !ParseFourcc(parts[1], &layout->fourcc) || !IsClientFormat(layout->fourcc))
        return false;
    if (parts.size() == 2)
        return true;
    static const std::map<std::string, Variant> variants = {
        {"crop", Variant::kCrop},     {"rot90", Variant::kRot90}, {"rot180", Variant::kRot180},
        {"rot270", Variant::kRot270}, {"flip", Variant::kFlip},
    };
    auto it = variants.find(parts[2]);
    if (it == variants.end())
        return false;
    layout->variant = it->second;
    return true;
}

void Usage(std::ostream& out) {
    out << "usage: marlo_capture_demo [options]\n"
           "  --device PATH     capture device id (default /dev/video0)\n"
           "  --size WxH        capture size (default 1280x720)\n"
           "  --format FOURCC   capture format, a V4L2 code such as YUYV, UYVY, NV12 (default "
           "YUYV)\n"
           "  --client LAYOUT   add a client WxH:FOURCC[:crop|rot90|rot180|rot270|flip]; every\n"
           "                    set of it holds the whole frame and the frame so changed\n"
           "                    (default: 640x360:NV12:crop and 360x640:AB24:rot90)\n"
           "  --client-id N     id of the first client, the next ones count up (default 0)\n"
           "  --sets N          buffer sets lent per client (default 3)\n"
           "  --frames N        stop once every client received N frames (default 60)\n"
           "  --seconds S       stop after S seconds in any case (default 10)\n"
           "  --fps N           ask for N frames per second, which the library sets at the start\n"
           "                    (default: the configured rate, else the device's own)\n"
           "  --out DIR         where the first frame of each client is written (default .)\n"
           "  --verbose         show the library's log lines of error severity\n";
}

/* 0 to run, 1 when help was asked for, -1 for a bad option. */
int ParseOptions(int argc, char** argv, Options* options, std::ostream& err) {
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        if (name == "--help" || name == "-h")
            return 1;
        if (name == "--verbose") {
            options->verbose = true;
            continue;
        }
        if (i + 1 >= argc) {
            err << "option " << name << " needs a value\n";
            return -1;
        }
        std::string value = argv[++i];
        bool ok = true;
        if (name == "--device") {
            options->device = value;
        } else if (name == "--size") {
            ok = ParseSize(value, &options->width, &options->height);
        } else if (name == "--format") {
            ok = ParseFourcc(value, &options->fourcc) && IsCaptureFormat(options->fourcc);
        } else if (name == "--client") {
            ClientLayout layout;
            ok = ParseClient(value, &layout);
            options->clients.push_back(layout);
        } else if (name == "--client-id") {
            ok = ParseNumber(value, 0, &options->firstClientId);
        } else if (name == "--sets") {
            ok = ParseNumber(value, 1, &options->sets);
        } else if (name == "--frames") {
            ok = ParseNumber(value, 1, &options->frames);
        } else if (name == "--seconds") {
            ok = ParseNumber(value, 1, &options->seconds);
        } else if (name == "--fps") {
            ok = ParseNumber(value, 1, &options->fps);
        } else if (name == "--out") {
            options->outDir = value;
        } else {
            err << "unknown option " << name << "\n";
            return -1;
        }
        if (!ok) {
            err << "bad value '" << value << "' for " << name << "\n";
            return -1;
        }
    }
    if (options->clients.empty()) {
        options->clients.push_back({640, 360, tessaro::marlo::FOURCC_NV12, Variant::kCrop});
        options->clients.push_back({360, 640, tessaro::marlo::FOURCC_AB24, Variant::kRot90});
    }
    return 0;
}

/* Bytes of one image of \a fourcc with a row stride of \a stride pixels. */
size_t ImageBytes(uint32_t fourcc, uint32_t stride, uint32_t height) {
    size_t pixels = static_cast<size_t>(stride) * height;
    switch (fourcc) {
        case tessaro::marlo::FOURCC_NV12:
        case tessaro::marlo::FOURCC_NV21:
        case tessaro::marlo::FOURCC_YU12:
        case tessaro::marlo::FOURCC_YV12:
            return pixels * 3 / 2;
        case tessaro::marlo::FOURCC_RGB3:
        case tessaro::marlo::FOURCC_BGR3:
            return pixels * 3;
        case tessaro::marlo::FOURCC_AB24:
        case tessaro::marlo::FOURCC_XB24:
        case tessaro::marlo::FOURCC_RA24:
        case tessaro::marlo::FOURCC_RX24:
        case tessaro::marlo::FOURCC_BA24:
        case tessaro::marlo::FOURCC_AR24:
        case tessaro::marlo::FOURCC_XR24:
            return pixels * 4;
        default:
            /* The 4:2:2 formats and RGB565. */
            return pixels * 2;
    }
}

std::string LocationName(int32_t value) {
    static const char* const names[] = {
        "interior",      "exterior_other", "exterior_front", "exterior_rear",
        "exterior_left", "exterior_right", "extra_other",    "extra_front",
        "extra_rear",    "extra_left",     "extra_right",
    };
    return value >= 0 && value <= 10 ? names[value] : "unknown";
}

std::string LensFacingName(int32_t value) {
    static const char* const names[] = {
        "exterior_other",
        "exterior_front",
        "exterior_rear",
        "exterior_left",
        "exterior_right",
        "interior_other",
        "interior_seat_row_1_left",
        "interior_seat_row_1_center",
        "interior_seat_row_1_right",
        "interior_seat_row_2_left",
        "interior_seat_row_2_center",
        "interior_seat_row_2_right",
        "interior_seat_row_3_left",
        "interior_seat_row_3_center",
        "interior_seat_row_3_right",
    };
    return value >= 0 && value <= 14 ? names[value] : "unknown";
}

/* One client: its stream, its buffers and what its callback saw. */
class DemoClient {
  public:
    /* The client's event lines go to \a events. */
    DemoClient(int id, const ClientLayout& layout, GrallocFrameBufferAllocator* allocator,
               LineMailbox* events)
        : id_(id),
          layout_(layout),
          allocator_(allocator),
          stats_("client " + std::to_string(id)),
          health_("client " + std::to_string(id)),
          events_(events) {}

    /* The stream lets go of the lent buffers before they are freed. */
    ~DemoClient() {
        if (open_)
            stream_.CloseCamera();
    }

    DemoClient(const DemoClient&) = delete;
    DemoClient& operator=(const DemoClient&) = delete;

    int id() const { return id_; }
    const ClientLayout& layout() const { return layout_; }

    bool Open(const Options& options, std::ostream& err) {
        stream_.ClientSetEventListener(
            health_.Listener([this](const tessaro::marlo::StreamEvent&, const std::string& line) {
                if (!line.empty())
                    events_->Post(line);
            }));
        if (stream_.OpenCamera(id_, options.device, static_cast<int>(options.width),
                               static_cast<int>(options.height),
                               static_cast<int>(options.fourcc)) != 0) {
            err << "client " << id_ << ": OpenCamera(" << options.device << ") failed\n";
            return false;
        }
        open_ = true;
        return true;
    }

    /* Allocates every set, lends the first and queues the rest behind it. */
    bool LendBuffers(const Options& options, std::ostream& err) {
        for (int s = 0; s < options.sets; ++s) {
            FrameSet set;
            for (int b = 0; b < 2; ++b) {
                std::shared_ptr<FrameBuffer> buffer = Allocate(options, s, b, err);
                if (!buffer)
                    return false;
                set.push_back(buffer);
            }
            sets_.push_back(set);
        }
        if (stream_.ClientSetBufferInfo(sets_[0]) != 0) {
            err << "client " << id_ << ": ClientSetBufferInfo failed\n";
            return false;
        }
        for (size_t s = 1; s < sets_.size(); ++s) {
            if (stream_.ClientReturnFrame(sets_[s]) != 0) {
                err << "client " << id_ << ": lending set " << s << " failed\n";
                return false;
            }
        }
        return true;
    }

    /* The library sets the rate on the device when capture starts. */
    bool SetFrameRate(int fps, std::ostream& err) {
        int status = stream_.ClientSetFrameRate(static_cast<float>(fps));
        if (status != 0) {
            err << "client " << id_ << ": ClientSetFrameRate(" << fps << ") failed (" << status
                << ")\n";
            return false;
        }
        return true;
    }

    bool Start(std::ostream& err) {
        int status = stream_.ClientStartStream(
            [this](std::vector<std::shared_ptr<FrameBuffer>> frames) { OnFrames(frames); });
        if (status != 0) {
            err << "client " << id_ << ": ClientStartStream failed (" << status << ")\n";
            return false;
        }
        return true;
    }

    const StreamHealth& health() const { return health_; }

    /* The stream parameters, one line; asked while the stream is open. */
    std::string Params() {
        std::ostringstream out;
        marlo_param_value_t value;
        if (stream_.ClientGetParams(MARLO_PARAM_COLOR_FORMAT, &value) == 0)
            out << "colour " << FourccText(value.color_format);
        if (stream_.ClientGetParams(MARLO_PARAM_RESOLUTION, &value) == 0)
            out << ", resolution " << value.resolution.width << "x" << value.resolution.height
                << " @ " << std::fixed << std::setprecision(1) << value.resolution.frame_rate
                << " fps";
        if (stream_.ClientGetParams(MARLO_PARAM_LOCATION, &value) == 0)
            out << ", location " << LocationName(value.location) << " (" << value.location << ")";
        else
            out << ", location not in the configuration";
        if (stream_.ClientGetParams(MARLO_PARAM_LENS_FACING, &value) == 0)
            out << ", lens facing " << LensFacingName(value.lens_facing) << " ("
                << value.lens_facing << ")";
        else
            out << ", lens facing not in the configuration";
        return out.str();
    }

    void Stop() {
        stream_.ClientStopStream();
        stream_.CloseCamera();
        open_ = false;
    }

    /* Prints the counts and writes the first frame's buffers under \a dir. */
    void Report(const std::string& dir, const std::string& params, std::ostream& out) {
        std::lock_guard<std::mutex> lock(mutex_);
        out << "client " << id_ << ": " << layout_.width << "x" << layout_.height << " "
            << FourccText(layout_.fourcc) << " + " << VariantName(layout_.variant) << ", "
            << sets_.size() << " sets of 2 buffers\n";
        out << "  params: " << params << "\n";
        if (frames_ == 0) {
            out << "  frames 0\n";
            return;
        }
        FrameStats::Summary summary = stats_.Summarize();
        out << "  frames " << frames_ << ", dropped " << summary.drops;
        if (summary.fps > 0)
            out << ", " << std::fixed << std::setprecision(1) << summary.fps
                << " fps by timestamps";
        out << "\n";
        if (incomplete_ > 0)
            out << "  " << incomplete_ << " set(s) not converted within " << kFenceWaitMs
                << " ms\n";
        for (size_t b = 0; b < first_.size(); ++b) {
            const FrameInfo& info = first_info_[b];
            std::ostringstream name;
            name << dir << "/client" << id_ << "_buf" << b << "_" << info.width << "x"
                 << info.height << "_stride" << info.stride << "_" << FourccText(info.fourcc)
                 << "_seq" << kept_sequence_ << ".raw";
            std::ofstream file(name.str(), std::ios::binary | std::ios::trunc);
            file.write(reinterpret_cast<const char*>(first_[b].data()),
                       static_cast<std::streamsize>(first_[b].size()));
            file.close();
            if (file)
                out << "  first frame: " << name.str() << " (" << first_[b].size() << " bytes)\n";
            else
                out << "  first frame: could not write " << name.str() << "\n";
        }
    }

    int frames() {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }

  private:
    struct FrameInfo {
        uint32_t width;
        uint32_t height;
        uint32_t stride;
        uint32_t fourcc;
    };

    std::shared_ptr<FrameBuffer> Allocate(const Options& options, int set, int index,
                                          std::ostream& err) {
        FrameBufferInfo info;
        info.fourcc = static_cast<FourccFormat>(layout_.fourcc);
        info.width = layout_.width;
        info.height = layout_.height;
        info.flags = kCpuUsage;
        if (index == 1)
            ApplyVariant(options, &info);
        FrameBuffer* raw = nullptr;
        if (allocator_->Allocate(info, &raw) != 0 || raw == nullptr) {
            err << "client " << id_ << ": allocating " << info.width << "x" << info.height << " "
                << FourccText(layout_.fourcc) << " failed\n";
            return nullptr;
        }
        /* Destroying the buffer gives its memory back through the allocator. */
        std::shared_ptr<FrameBuffer> buffer(raw);
        buffer->SetCookies(static_cast<unsigned long>(id_ * 100 + set * 10 + index));
        return buffer;
    }

    void ApplyVariant(const Options& options, FrameBufferInfo* info) const {
        switch (layout_.variant) {
            case Variant::kCrop: {
                /* The middle of the captured frame, half its size, on even positions. */
                int32_t w = static_cast<int32_t>(options.width / 2) & ~1;
                int32_t h = static_cast<int32_t>(options.height / 2) & ~1;
                int32_t x = static_cast<int32_t>(options.width / 4) & ~1;
                int32_t y = static_cast<int32_t>(options.height / 4) & ~1;
                info->sourceCrop = FrameBufferRect{x, y, w, h};
                break;
            }
            case Variant::kRot90:
            case Variant::kRot270:
                /* The client gives the upright size; the rotated buffer is its transpose. */
                std::swap(info->width, info->height);
                info->transform = layout_.variant == Variant::kRot90 ? NAX_TRANSFORM_ROT_90
                                                                     : NAX_TRANSFORM_ROT_270;
                break;
            case Variant::kRot180:
                info->transform = NAX_TRANSFORM_ROT_180;
                break;
            case Variant::kFlip:
                info->transform = NAX_TRANSFORM_FLIP_H;
                break;
        }
    }

    /*
     * Runs on the camera's IO thread, which serves every client of the
     * camera: keep it short, and never open, start, stop or close a stream
     * of this camera from here.
     */
    void OnFrames(std::vector<std::shared_ptr<FrameBuffer>> frames) {
        if (frames.empty())
            return;
        /*
         * The conversions may still run on the engine when the set arrives;
         * the fences, owned by the buffers, tell when they are done.
         */
        bool complete = true;
        for (const auto& frame : frames) {
            if (frame && frame->fence() >= 0 && sync_wait(frame->fence(), kFenceWaitMs) != 0)
                complete = false;
        }
        uint64_t now = MonotonicNs();
        /* After a loss the capture restarts and its sequence counts anew. */
        if (health_.OnFrame(now))
            stats_.StartSegment();
        stats_.Record(frames[0]->sequence(), frames[0]->timestamp(), now);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!complete)
                ++incomplete_;
            /* The first set the engine finished in time is the one written out. */
            if (complete && first_.empty()) {
                kept_sequence_ = frames[0]->sequence();
                KeepFirst(frames);
            }
            ++frames_;
        }
        /* Done with the set: it goes back to the library for a later frame. */
        stream_.ClientReturnFrame(frames);
    }

    /*
     * Copies the set's images. Each buffer is locked for the CPU only while
     * it is read, once the engine is done with it.
     */
    void KeepFirst(const FrameSet& frames) {
        for (const auto& frame : frames) {
            const void* address = allocator_->Map(frame.get());
            if (address == nullptr)
                continue;
            FrameInfo info = {frame->width(), frame->height(), frame->stride(),
                              static_cast<uint32_t>(frame->fourcc())};
            size_t bytes = ImageBytes(info.fourcc, info.stride, info.height);
            if (bytes > frame->size())
                bytes = frame->size();
            const uint8_t* data = static_cast<const uint8_t*>(address);
            first_.emplace_back(data, data + bytes);
            first_info_.push_back(info);
            allocator_->UnMap(frame.get());
        }
    }

    int id_;
    ClientLayout layout_;
    bool open_ = false;
    GrallocFrameBufferAllocator* allocator_;
    std::vector<FrameSet> sets_;

    std::mutex mutex_;
    int frames_ = 0;
    /* Sets whose conversion had not finished within kFenceWaitMs. */
    int incomplete_ = 0;
    uint32_t kept_sequence_ = 0;
    std::vector<std::vector<uint8_t>> first_;
    std::vector<FrameInfo> first_info_;
    FrameStats stats_;
    StreamHealth health_;
    LineMailbox* events_;

    /* Last: closed before the buffers it was lent go away. */
    V4l2Stream stream_;
};

/* The rate once streaming, as the library set it (or the device kept its own). */
void PrintStreamingRate(const Options& options, std::ostream& out) {
    std::string error;
    double rate = DeviceRate(options.device, &error);
    out << "device rate while streaming: ";
    if (rate > 0)
        out << std::fixed << std::setprecision(1) << rate << " fps\n";
    else
        out << "not reported (" << error << ")\n";
}

/*
 * Prints the format the device captures in once streaming. A driver may
 * choose another size or format than asked (vivid's webcam has a few fixed
 * sizes); the library then converts from what it captures and says so with
 * a FormatAdjusted event.
 */
void PrintStreamingFormat(const Options& options, std::ostream& out) {
    tessaro::marlo::UniqueFd fd(open(options.device.c_str(), O_RDWR | O_CLOEXEC));
    v4l2_format format = {};
    int error = fd.get() < 0 ? errno : EINVAL;
    for (uint32_t type : {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE}) {
        if (fd.get() < 0)
            break;
        format = {};
        format.type = type;
        error = ioctl(fd.get(), VIDIOC_G_FMT, &format) == 0 ? 0 : errno;
        if (error != EINVAL)
            break;
    }
    if (error != 0) {
        out << "device format while streaming: not reported (" << strerror(error) << ")\n";
        return;
    }
    bool mplane = format.type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    uint32_t width = mplane ? format.fmt.pix_mp.width : format.fmt.pix.width;
    uint32_t height = mplane ? format.fmt.pix_mp.height : format.fmt.pix.height;
    uint32_t fourcc = mplane ? format.fmt.pix_mp.pixelformat : format.fmt.pix.pixelformat;
    out << "device format while streaming: " << width << "x" << height << " " << FourccText(fourcc)
        << "\n";
}

/* Prints the event lines that arrived since the last call; false when there were none. */
bool PrintEventLines(LineMailbox& lines, double seconds, std::ostream& out) {
    std::vector<std::string> taken = lines.Take();
    for (const std::string& line : taken)
        out << "events: " << std::fixed << std::setprecision(1) << seconds << " s | " << line
            << "\n";
    return !taken.empty();
}

/* One progress line: frames per client, the camera's state and what its events said. */
void PrintProgress(double seconds, const std::vector<std::unique_ptr<DemoClient>>& clients,
                   std::ostream& out) {
    out << "progress: " << std::fixed << std::setprecision(1) << seconds << " s";
    bool down = false;
    for (const auto& client : clients) {
        out << " | client " << client->id() << " " << client->frames() << " frames";
        std::string brief = BriefHealth(client->health().Summarize());
        if (!brief.empty())
            out << " (" << brief << ")";
        down = down || client->health().down();
    }
    out << (down ? " | CAMERA LOST, waiting for it" : " | camera live") << "\n";
}

}  // namespace

int RunCaptureDemo(int argc, char** argv, std::ostream& out, std::ostream& err) {
    Options options;
    int parsed = ParseOptions(argc, argv, &options, err);
    if (parsed != 0) {
        Usage(parsed > 0 ? out : err);
        return parsed > 0 ? 0 : 2;
    }
    ToolLogLevel logLevel(options.verbose);

    /*
     * The library reports a device it cannot open only in its log, once the
     * stream starts; asking the device first gives the user a plain answer.
     */
    {
        int fd = open(options.device.c_str(), O_RDWR | O_CLOEXEC);
        int error = errno;
        tessaro::marlo::UniqueFd probe(fd);
        if (probe.get() < 0) {
            err << "cannot open " << options.device << ": " << strerror(error)
                << "\n(without a camera, load the kernel's virtual video driver: "
                   "sudo modprobe vivid, then pass its node with --device)\n";
            return 2;
        }
    }

    out << "marlo_capture_demo: " << options.device << " " << options.width << "x" << options.height
        << " " << FourccText(options.fourcc) << ", " << options.clients.size()
        << " client(s), until " << options.frames << " frames each or " << options.seconds
        << " s\n";

    GrallocFrameBufferAllocator allocator;
    /* Events arrive on the library's event thread; this one prints them. */
    LineMailbox eventLines;
    std::vector<std::unique_ptr<DemoClient>> clients;
    for (size_t i = 0; i < options.clients.size(); ++i) {
        clients.push_back(std::make_unique<DemoClient>(options.firstClientId + static_cast<int>(i),
                                                       options.clients[i], &allocator,
                                                       &eventLines));
        DemoClient& client = *clients.back();
        if (!client.Open(options, err) || !client.LendBuffers(options, err))
            return 2;
        if (options.fps > 0 && !client.SetFrameRate(options.fps, err))
            return 2;
    }

    std::vector<std::string> params;
    for (auto& client : clients)
        params.push_back(client->Params());

    if (options.fps > 0)
        out << "device rate: asked " << options.fps << " fps, set by the library at the start\n";

    for (auto& client : clients) {
        if (!client->Start(err))
            return 2;
    }
    PrintStreamingRate(options, out);
    PrintStreamingFormat(options, out);

    Clock::time_point started = Clock::now();
    Clock::time_point deadline = started + std::chrono::seconds(options.seconds);
    Clock::time_point nextProgress = started + std::chrono::seconds(2);
    bool wasDown = false;
    auto seconds = [&] { return std::chrono::duration<double>(Clock::now() - started).count(); };
    for (;;) {
        bool done = true;
        for (auto& client : clients)
            done = done && client->frames() >= options.frames;
        /* What the events changed, and the first frames after an outage, show at once. */
        bool events = PrintEventLines(eventLines, seconds(), out);
        if (done || Clock::now() >= deadline)
            break;
        bool down = false;
        for (auto& client : clients)
            down = down || client->health().down();
        if (events || down != wasDown || Clock::now() >= nextProgress) {
            wasDown = down;
            PrintProgress(seconds(), clients, out);
            nextProgress = Clock::now() + std::chrono::seconds(2);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    for (auto& client : clients)
        client->Stop();
    /* Events of the stops themselves are not listed. */
    eventLines.Take();

    bool noFrames = false;
    bool down = false;
    std::vector<StreamHealth::Summary> health;
    for (size_t i = 0; i < clients.size(); ++i) {
        clients[i]->Report(options.outDir, params[i], out);
        if (clients[i]->frames() == 0)
            noFrames = true;
        health.push_back(clients[i]->health().Summarize());
        down = down || health.back().down;
    }
    out << "stream events:\n";
    PrintHealthTable(health, out);
    if (noFrames)
        err << "a client received no frame within " << options.seconds << " s: is "
            << options.device
            << " a streaming capture device that takes the capture size and format?\n";
    if (down)
        err << "the camera was lost and had not come back when the run ended\n";
    int status = noFrames || down ? 1 : 0;
    return status;
}

}  // namespace marlo_demo
