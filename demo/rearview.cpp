#include "rearview.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/pixel_format.h>

#include "contact_sheet.h"
#include "demo_common.h"
#include "display_client.h"
#include "drm_display.h"
#include "frame_stats.h"
#include "rearview_report.h"
#include "recorder_client.h"
#include "stream_health.h"

namespace marlo_demo {

namespace {

using Clock = std::chrono::steady_clock;
using tessaro::marlo::FrameBufferRect;

constexpr int kDisplayClientId = 0;
constexpr int kRecorderClientId = 1;
/* Height of each frame on the contact sheet. */
constexpr uint32_t kSheetHeight = 360;

struct Options {
    std::string device = "/dev/video0";
    uint32_t width = 640;
    uint32_t height = 480;
    uint32_t fourcc = tessaro::marlo::FOURCC_YUYV;
    int fps = 30;
    int seconds = 10;
    int frames = 0;
    std::string card;
    uint32_t modeWidth = 0;
    uint32_t modeHeight = 0;
    int sets = 3;
    uint32_t recordWidth = 320;
    uint32_t recordHeight = 240;
    std::string out = ".";
    std::string record;
    std::string sheet;
    std::vector<std::pair<std::string, int>> controls;
    bool verbose = false;
};

void Usage(std::ostream& out) {
    out << "usage: marlo_rearview [options]\n"
           "  --device PATH        camera node (default /dev/video0)\n"
           "  --size WxH           capture size (default 640x480)\n"
           "  --format FOURCC      capture format, e.g. YUYV, NV12 (default YUYV)\n"
           "  --fps N              ask the camera for N frames per second (default 30; 0 keeps\n"
           "                       the configured or the camera's own rate)\n"
           "  --seconds S          run for S seconds (default 10)\n"
           "  --frames N           or until the display showed N frames\n"
           "  --card PATH          DRM card of the display (default /dev/dri/card0)\n"
           "  --mode WxH           display mode (default the display's preferred one)\n"
           "  --sets N             scan-out buffers, at least 2 (default 3)\n"
           "  --record-size WxH    the recorder's NV12 frame size (default 320x240)\n"
           "  --out DIR            where the recording and the contact sheet go (default .)\n"
           "  --record FILE        the recording (default DIR/rearview_record.nv12)\n"
           "  --sheet FILE         the contact sheet (default DIR/rearview_sheet.png)\n"
           "  --ctrl NAME=VALUE    set a control of the camera first (repeatable), e.g.\n"
           "                       --ctrl 'Timestamp Source=1' for start-of-exposure stamps\n"
           "  --verbose            show the library's log lines of error severity\n"
           "Run it from a text console: the display must not belong to a desktop session.\n";
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
        if (name == "--device")
            options->device = value;
        else if (name == "--size")
            ok = ParseSize(value, &options->width, &options->height);
        else if (name == "--format")
            ok = ParseFourcc(value, &options->fourcc);
        else if (name == "--fps")
            ok = ParseNumber(value, 0, &options->fps);
        else if (name == "--seconds")
            ok = ParseNumber(value, 1, &options->seconds);
        else if (name == "--frames")
            ok = ParseNumber(value, 1, &options->frames);
        else if (name == "--card")
            options->card = value;
        else if (name == "--mode")
            ok = ParseSize(value, &options->modeWidth, &options->modeHeight);
        else if (name == "--sets")
            ok = ParseNumber(value, 2, &options->sets);
        else if (name == "--record-size")
            ok = ParseSize(value, &options->recordWidth, &options->recordHeight) &&
                 options->recordWidth % 2 == 0 && options->recordHeight % 2 == 0;
        else if (name == "--out")
            options->out = value;
        else if (name == "--record")
            options->record = value;
        else if (name == "--sheet")
            options->sheet = value;
        else if (name == "--ctrl") {
            size_t equals = value.rfind('=');
            int number = 0;
            ok = equals != std::string::npos && equals > 0 &&
                 ParseNumber(value.substr(equals + 1), 0, &number);
            if (ok)
                options->controls.emplace_back(value.substr(0, equals), number);
        } else {
            err << "unknown option " << name << "\n";
            return -1;
        }
        if (!ok) {
            err << "bad value '" << value << "' for " << name << "\n";
            return -1;
        }
    }
    if (options->record.empty())
        options->record = options->out + "/rearview_record.nv12";
    if (options->sheet.empty())
        options->sheet = options->out + "/rearview_sheet.png";
    return 0;
}

/*
 * The part of the camera frame the screen shows: the largest centred
 * rectangle of the screen's aspect, so the picture fills the screen
 * undistorted, as rear-view displays do.
 */
FrameBufferRect FillCrop(uint32_t width, uint32_t height, uint32_t screenWidth,
                         uint32_t screenHeight) {
    uint64_t w = width;
    uint64_t h = height;
    if (w * screenHeight > h * screenWidth)
        w = h * screenWidth / screenHeight;
    else
        h = w * screenHeight / screenWidth;
    w &= ~uint64_t{1};
    h &= ~uint64_t{1};
    int32_t x = static_cast<int32_t>((width - w) / 2) & ~1;
    int32_t y = static_cast<int32_t>((height - h) / 2) & ~1;
    return {x, y, static_cast<int32_t>(w), static_cast<int32_t>(h)};
}

std::string Fixed(double value, int digits) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

/* One progress line, rewritten in place on a terminal. */
void PrintProgress(double seconds, const DisplayClient& display, const RecorderClient& recorder,
                   bool terminal, std::ostream& out) {
    std::string line =
        ProgressLine(seconds, display.shown().Summarize(), recorder.stats().Summarize(),
                     {display.health().Summarize(), recorder.health().Summarize()}, MonotonicNs());
    /* On a terminal the line is rewritten in place, the rest of the old one cleared. */
    out << (terminal ? "\r" + line + "\x1b[K" : line + "\n") << std::flush;
}

/*
 * Prints the event lines that arrived, each on a line of its own above the
 * progress line; false when there were none.
 */
bool PrintEventLines(LineMailbox& lines, double seconds, bool terminal, std::ostream& out) {
    std::vector<std::string> taken = lines.Take();
    for (const std::string& line : taken)
        out << (terminal ? "\r\x1b[K" : "") << "rearview: " << Fixed(seconds, 1) << " s | " << line
            << "\n";
    return !taken.empty();
}

}  // namespace

int RunRearview(int argc, char** argv, std::ostream& out, std::ostream& err) {
    Options options;
    int parsed = ParseOptions(argc, argv, &options, err);
    if (parsed != 0) {
        Usage(parsed > 0 ? out : err);
        return parsed > 0 ? 0 : 2;
    }
    ToolLogLevel logLevel(options.verbose);

    {
        tessaro::marlo::UniqueFd probe(open(options.device.c_str(), O_RDWR | O_CLOEXEC));
        if (!probe.isValid()) {
            err << "cannot open " << options.device << ": " << strerror(errno)
                << "\n(without a camera, load the kernel's virtual video driver: "
                   "sudo modprobe vivid, then pass its node with --device)\n";
            return 2;
        }
    }
    std::string error;
    std::unique_ptr<DrmDisplay> display =
        DrmDisplay::Open(options.card, options.modeWidth, options.modeHeight, &error);
    if (!display) {
        err << "display: " << error << "\n";
        return 2;
    }
    FrameBufferRect crop =
        FillCrop(options.width, options.height, display->width(), display->height());
    if (!display->AddBuffers(options.sets, crop, &error)) {
        err << "display: " << error << "\n";
        return 2;
    }
    out << "marlo_rearview: camera " << options.device << " " << options.width << "x"
        << options.height << " " << FourccText(options.fourcc) << ", display "
        << display->description() << ", " << options.sets << " scan-out buffers showing "
        << crop.width << "x" << crop.height << "+" << crop.x << "+" << crop.y << ", recorder "
        << options.recordWidth << "x" << options.recordHeight << " NV12\n";

    for (const auto& [control, value] : options.controls) {
        if (!SetDeviceControl(options.device, control, value, &error)) {
            err << "camera: cannot set '" << control << "' to " << value << ": " << error << "\n";
            return 2;
        }
    }
    /*
     * Events arrive on the library's event thread and are printed by this
     * one. A camera that comes back after a loss may have been reset: its
     * controls are set again.
     */
    LineMailbox eventLines;
    auto displayEvents = [&eventLines, &options](const tessaro::marlo::StreamEvent& event,
                                                 const std::string& line) {
        if (!line.empty())
            eventLines.Post(line);
        if (event.type != tessaro::marlo::StreamEventType::kDeviceRecovered)
            return;
        for (const auto& [control, value] : options.controls) {
            std::string failure;
            if (!SetDeviceControl(options.device, control, value, &failure))
                eventLines.Post("camera: cannot set '" + control + "' again: " + failure);
        }
    };
    auto recorderEvents = [&eventLines](const tessaro::marlo::StreamEvent&,
                                        const std::string& line) {
        if (!line.empty())
            eventLines.Post(line);
    };

    DisplayClient displayClient(kDisplayClientId, display.get(), displayEvents);
    RecorderClient recorder(kRecorderClientId, options.recordWidth, options.recordHeight,
                            options.record, recorderEvents);
    /* The display opens first: its geometry and the rate it asks are the camera's. */
    if (!displayClient.Open(options.device, options.width, options.height, options.fourcc,
                            &error) ||
        (options.fps > 0 && !displayClient.SetFrameRate(options.fps, &error)) ||
        !recorder.Open(options.device, options.width, options.height, options.fourcc,
                       options.sets + 1, &error) ||
        !displayClient.Start(&error) || !recorder.Start(&error)) {
        err << error << "\n";
        return 2;
    }
    double rate = DeviceRate(options.device, &error);
    if (rate > 0)
        out << "camera rate: "
            << (options.fps > 0 ? "asked " + std::to_string(options.fps) + " fps, granted " : "")
            << Fixed(rate, 1) << " fps\n";
    else
        out << "camera rate: not reported (" << error << ")\n";

    bool terminal = isatty(STDOUT_FILENO) == 1;
    Clock::time_point started = Clock::now();
    Clock::time_point deadline = started + std::chrono::seconds(options.seconds);
    Clock::time_point nextProgress = started;
    bool wasDown = false;
    while (Clock::now() < deadline) {
        if (options.frames > 0 &&
            displayClient.shown().frames() >= static_cast<uint64_t>(options.frames))
            break;
        double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
        /* What the events changed, and the first frame after an outage, show at once. */
        bool events = PrintEventLines(eventLines, elapsed, terminal, out);
        bool down = displayClient.health().down();
        if (events || down != wasDown || Clock::now() >= nextProgress) {
            wasDown = down;
            PrintProgress(elapsed, displayClient, recorder, terminal, out);
            nextProgress = Clock::now() +
                           (terminal ? std::chrono::milliseconds(500) : std::chrono::seconds(2));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    PrintEventLines(eventLines, elapsed, terminal, out);
    PrintProgress(elapsed, displayClient, recorder, terminal, out);
    if (terminal)
        out << "\n";

    recorder.Stop();
    displayClient.Stop();
    /* Events of the stops themselves are not listed; drain them quietly. */
    eventLines.Take();

    std::vector<SheetImage> last(2);
    bool haveShown = displayClient.LastShown(&last[0]);
    bool haveRecorded = recorder.LastFrame(&last[1]);
    recorder.Close();
    displayClient.Close();

    out << "\n";
    PrintStatsTable({displayClient.delivered().Summarize(), displayClient.shown().Summarize(),
                     recorder.stats().Summarize()},
                    out);
    out << "latency: from the frame's capture timestamp (CLOCK_MONOTONIC) to the client's "
           "callback; on screen: to the page-flip event\n";
    out << "\n";
    StreamHealth::Summary displayHealth = displayClient.health().Summarize();
    StreamHealth::Summary recorderHealth = recorder.health().Summarize();
    PrintEventReport({displayHealth, recorderHealth}, out);
    if (displayClient.failures() > 0)
        err << "display: " << displayClient.failures()
            << " commit(s) or flip(s) failed, the last: " << displayClient.lastError() << "\n";
    if (recorder.bytesWritten() > 0)
        out << "recording: " << options.record << " (" << recorder.bytesWritten()
            << " bytes; ffplay -f rawvideo -pixel_format nv12 -video_size " << options.recordWidth
            << "x" << options.recordHeight << " " << options.record << ")\n";

    std::vector<SheetImage> sheet;
    if (haveShown)
        sheet.push_back(std::move(last[0]));
    if (haveRecorded)
        sheet.push_back(std::move(last[1]));
    if (!sheet.empty() && WriteContactSheet(sheet, kSheetHeight, options.sheet, &error))
        out << "contact sheet: " << options.sheet << " (the last frame shown, the last "
            << "recorded)\n";
    else if (!sheet.empty())
        err << "contact sheet: " << error << "\n";

    if (displayHealth.down || recorderHealth.down) {
        err << "the camera was " << (displayHealth.down ? displayHealth : recorderHealth).downCause
            << " and had not come back when the run ended\n";
        return 1;
    }
    if (!haveShown || !haveRecorded) {
        err << "a client received no frame within " << options.seconds << " s: is "
            << options.device << " a streaming capture device that takes " << options.width << "x"
            << options.height << " " << FourccText(options.fourcc) << "?\n";
        return 1;
    }
    return 0;
}

}  // namespace marlo_demo
