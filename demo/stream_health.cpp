#include "stream_health.h"

#include <string.h>

#include <cstdio>
#include <sstream>
#include <utility>

#include <marlo/base/error.h>

#include "demo_common.h"

namespace marlo_demo {

namespace {

using tessaro::marlo::StreamEvent;
using tessaro::marlo::StreamEventType;
using tessaro::marlo::StreamFormat;

std::string FormatText(const StreamFormat& format) {
    return std::to_string(format.width) + "x" + std::to_string(format.height) + " " +
           FourccText(format.fourcc);
}

/* The driver's errno when there is one, else what the library saw. */
std::string Reason(const StreamEvent& event) {
    if (event.systemError != 0)
        return strerror(event.systemError);
    if (event.status == tessaro::marlo::ERR_CONNECTION_CLOSED)
        return "its node hung up";
    return tessaro::marlo::ErrorToString(event.status);
}

std::string Milliseconds(double ms) {
    char text[32];
    snprintf(text, sizeof(text), "%.0f ms", ms);
    return text;
}

/* "412 ms" or "412, 530 ms" for several outages; "-" for none. */
std::string BackAfterText(const std::vector<double>& times) {
    if (times.empty())
        return "-";
    std::string text;
    for (size_t i = 0; i < times.size(); ++i) {
        char value[24];
        snprintf(value, sizeof(value), "%.0f", times[i]);
        text += (i == 0 ? "" : ", ") + std::string(value);
    }
    return text + " ms";
}

}  // namespace

std::string DescribeEvent(const StreamEvent& event) {
    switch (event.type) {
        case StreamEventType::kStreamStarted:
            return "stream started";
        case StreamEventType::kStreamStopped:
            return "stream stopped";
        case StreamEventType::kStartFailed:
            if (event.asked.fourcc != 0 && event.status == tessaro::marlo::ERR_NOT_IMPLEMENTED)
                return "camera not started: its format " + FormatText(event.granted) +
                       " cannot be converted";
            return "camera refused to start (" + Reason(event) + "), retrying";
        case StreamEventType::kFrameDropped:
            return "frame " + std::to_string(event.sequence) + " dropped";
        case StreamEventType::kCaptureStalled:
            return "camera stalled: no frame for " + std::to_string(event.timeoutMs) +
                   " ms, restarting it";
        case StreamEventType::kDeviceLost:
            return "camera lost (" + Reason(event) + "), waiting for it to come back";
        case StreamEventType::kDeviceRecovered:
            return "camera recovered";
        case StreamEventType::kFormatAdjusted:
            return "format adjusted: asked " + FormatText(event.asked) + ", granted " +
                   FormatText(event.granted) + "; frames are converted from what it captures";
    }
    return std::string("event ") + tessaro::marlo::StreamEventTypeName(event.type);
}

StreamHealth::StreamHealth(std::string name) : name_(std::move(name)) {
    counts_.name = name_;
}

tessaro::marlo::StreamEventListener StreamHealth::Listener(Sink sink) {
    return [this, sink](const StreamEvent& event) {
        Handle(event);
        if (!sink)
            return;
        /* Starts and stops are the tool's own doing; drops are counted, not listed. */
        bool listed = event.type != StreamEventType::kStreamStarted &&
                      event.type != StreamEventType::kStreamStopped &&
                      event.type != StreamEventType::kFrameDropped;
        sink(event, listed ? name_ + ": " + DescribeEvent(event) : std::string());
    };
}

void StreamHealth::Handle(const StreamEvent& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    const char* outage = nullptr;
    switch (event.type) {
        case StreamEventType::kDeviceLost:
            ++counts_.lost;
            outage = "lost";
            break;
        case StreamEventType::kCaptureStalled:
            ++counts_.stalled;
            outage = "stalled";
            break;
        case StreamEventType::kStartFailed:
            ++counts_.refused;
            outage = "not started";
            break;
        case StreamEventType::kDeviceRecovered:
            ++counts_.recovered;
            /* Reopened and streaming; the outage ends with the first frame. */
            if (counts_.down)
                counts_.downCause = "recovering";
            break;
        case StreamEventType::kFormatAdjusted:
            ++counts_.adjusted;
            counts_.adjustment =
                FormatText(event.asked) + " granted as " + FormatText(event.granted);
            break;
        case StreamEventType::kFrameDropped:
            ++counts_.dropped;
            break;
        case StreamEventType::kStreamStarted:
        case StreamEventType::kStreamStopped:
            break;
    }
    /* An outage lasts from its first event to the next frame, whatever followed meanwhile. */
    if (outage != nullptr && !counts_.down) {
        counts_.down = true;
        counts_.downSinceNs = event.timestampNs;
        counts_.downCause = outage;
    }
}

bool StreamHealth::OnFrame(uint64_t nowNs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!counts_.down)
        return false;
    uint64_t since = counts_.downSinceNs;
    counts_.backAfterMs.push_back(nowNs > since ? static_cast<double>(nowNs - since) / 1e6 : 0.0);
    counts_.down = false;
    counts_.downCause.clear();
    return true;
}

StreamHealth::Summary StreamHealth::Summarize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

bool StreamHealth::down() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_.down;
}

std::string BriefHealth(const StreamHealth::Summary& summary) {
    std::vector<std::string> parts;
    auto count = [&](uint64_t value, const char* what) {
        if (value > 0)
            parts.push_back(std::string(what) + " " + std::to_string(value));
    };
    count(summary.lost, "lost");
    count(summary.stalled, "stalled");
    count(summary.refused, "refused");
    count(summary.recovered, "recovered");
    if (!summary.backAfterMs.empty())
        parts.push_back("back after " + Milliseconds(summary.backAfterMs.back()));
    count(summary.adjusted, "adjusted");
    count(summary.dropped, "dropped");
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i)
        text += (i == 0 ? "" : ", ") + parts[i];
    return text;
}

void PrintHealthTable(const std::vector<StreamHealth::Summary>& rows, std::ostream& out) {
    char line[200];
    snprintf(line, sizeof(line), "%-26s %5s %8s %8s %10s %14s %9s %8s\n", "client", "lost",
             "stalled", "refused", "recovered", "back after", "adjusted", "dropped");
    out << line;
    for (const StreamHealth::Summary& row : rows) {
        std::string back = BackAfterText(row.backAfterMs);
        if (row.down)
            back = row.backAfterMs.empty() ? "not back" : back + ", not back";
        snprintf(line, sizeof(line), "%-26s %5llu %8llu %8llu %10llu %14s %9llu %8llu\n",
                 row.name.c_str(), static_cast<unsigned long long>(row.lost),
                 static_cast<unsigned long long>(row.stalled),
                 static_cast<unsigned long long>(row.refused),
                 static_cast<unsigned long long>(row.recovered), back.c_str(),
                 static_cast<unsigned long long>(row.adjusted),
                 static_cast<unsigned long long>(row.dropped));
        out << line;
    }
    for (const StreamHealth::Summary& row : rows) {
        if (!row.adjustment.empty())
            out << row.name << ": format " << row.adjustment << "\n";
    }
}

void LineMailbox::Post(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
}

std::vector<std::string> LineMailbox::Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
}

}  // namespace marlo_demo
