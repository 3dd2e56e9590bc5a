/*
 * The debug-state report. Updates come from the capture threads (frame
 * numbers, drops, 2D-engine times) and from client threads (states); the data
 * mutex guards the tables and the line cache. The report is written outside
 * that mutex, from copies taken under it, so that a slow file never holds up
 * a capture thread and a report never reads a string while it is replaced.
 */
#include <marlo/base/logger.h>
#include <marlo/base/mutex.h>
#include <marlo/config/config.h>
#include <marlo/debug/debug_helper.h>
#include <marlo_platform/system_path.h>

#include <cutils/properties.h>

#include <fstream>
#include <iomanip>
#include <set>
#include <system_error>
#include <vector>

#include "base/cached_property.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_debug";
/* The tag under which Thread reports replacing a thread it still holds. */
constexpr char kThreadTag[] = "marlo_base";
constexpr char kOnProperty[] = "persist.vendor.tessaro.marlo.dbgfile.on";
constexpr char kIntervalProperty[] = "persist.vendor.tessaro.marlo.dbgfile.interval";
constexpr char kReportPath[] = "/data/vendor/camera/marlo_debug.log";
constexpr int kDefaultIntervalMs = 200;
constexpr int kMinIntervalMs = 33;
constexpr uint64_t kFpsWindowNs = 1000000000ull;
constexpr unsigned int kMaxSamples = 1000;

void LogMissingStream(const char* operation, unsigned int streamId) {
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: failed to find corresponding stream id %s!", operation,
              std::to_string(streamId).c_str());
}

void LogMissingNode(const char* operation, const std::string& node) {
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: failed to find corresponding deviceNode %s!", operation,
              node.c_str());
}

/*
 * The switch is asked twice for every converted buffer; it is read again
 * only when the property changed.
 */
bool SwitchedOn() {
    static auto* on = new detail::CachedProperty(
        kOnProperty, [](const char* name) -> int32_t { return property_get_bool(name, false); });
    return on->get() != 0;
}

/* Applies \a change to the entry of \a table under \a key; false when there is none. */
template <typename Table, typename Change>
bool ChangeEntry(Table& table, const typename Table::key_type& key, const Change& change) {
    auto it = table.find(key);
    if (it == table.end())
        return false;
    change(it->second);
    return true;
}

}  // namespace

std::atomic<bool> DebugHelper::started_{false};

DebugHelper& DebugHelper::getInstance() {
    /* Reaches the protected constructor and destructor. */
    struct Instance : DebugHelper {};
    static Instance instance;
    return instance;
}

DebugHelper::DebugHelper() {
    initialize();
}

DebugHelper::~DebugHelper() {
    stopTimer();
    /* A thread left running by a switch-off is woken here and joined by ~Thread. */
    running_ = false;
    ++timerGeneration_;
    wakeTimerLoop();
}

void DebugHelper::initialize() {
    GlobalCameraConfig::BoardConfig board = GlobalCameraConfig::Creat();
    std::vector<int> outside;
    {
        MutexLocker lock(dataMutex_);
        std::set<int> cameraIds;
        for (const auto& [camId, src] : board.inputMap) {
            streams_.emplace(static_cast<unsigned int>(camId), StreamInfo());
            cameraIds.insert(src.cameraId);
        }
        for (int cameraId : cameraIds) {
            /* The mapping is a position in the camera list; one outside it names no node. */
            if (cameraId < 0 || static_cast<size_t>(cameraId) >= board.cameras.size()) {
                outside.push_back(cameraId);
                continue;
            }
            for (const auto& channel : board.cameras[cameraId].channels)
                cameras_.emplace(channel.dev, CameraInfo());
        }
    }
    for (int cameraId : outside)
        marlo_log(MARLO_LOG_ERROR, kTag,
                  "%s: camera position %d is outside the board's %zu cameras, no device node added",
                  "initialize", cameraId, board.cameras.size());
    if (!isTimerStarted())
        dumpDebugInfo();
}

bool DebugHelper::readInterval() {
    int interval = property_get_int32(kIntervalProperty, kDefaultIntervalMs);
    bool tooShort = interval < kMinIntervalMs;
    interval_ = tooShort ? kDefaultIntervalMs : interval;
    return tooShort;
}

namespace {

/* Logged once the timer mutex is released: no lock of ours is held while logging. */
void LogIntervalTooShort(bool tooShort) {
    if (tooShort)
        marlo_log(MARLO_LOG_WARN, kTag, "%s: interval is too short!", "isPropertySupported");
}

}  // namespace

bool DebugHelper::isPropertySupported() {
    bool on;
    bool tooShort = false;
    {
        MutexLocker lock(timerMutex_);
        on = SwitchedOn();
        if (on)
            tooShort = readInterval();
    }
    LogIntervalTooShort(tooShort);
    return on;
}

bool DebugHelper::isTimerStarted() {
    MutexLocker lock(timerMutex_);
    bool on = SwitchedOn();
    if (!started_ && on) {
        bool tooShort = readInterval();
        lock.unlock();
        LogIntervalTooShort(tooShort);
        /*
         * The running flag is set before startTimer() looks at it, so no
         * report thread is created here: reports come from the updates that
         * write them and from initialize(), not periodically.
         */
        running_ = true;
        startTimer();
        started_ = true;
    } else if (started_ && on) {
        bool tooShort = readInterval();
        lock.unlock();
        LogIntervalTooShort(tooShort);
    } else if (started_ && !on) {
        lock.unlock();
        running_ = false;
        wakeTimerLoop();
        /* Finds the flag clear and does not wait. */
        stopTimer();
        started_ = false;
    }
    return started_;
}

void DebugHelper::startTimer() {
    MutexLocker lock(timerMutex_);
    if (running_)
        return;
    /*
     * A report thread that saw the flag cleared without being waited for
     * ends on its own; it is joined here rather than detached, so no thread
     * outlives the helper. The log still reads as when a Thread replaces one
     * it holds.
     */
    unsigned int generation = ++timerGeneration_;
    bool replaced = timer_.joinable();
    if (replaced) {
        wakeTimerLoop();
        timer_.stop();
        timer_.join();
    }
    running_ = true;
    std::string failure;
    try {
        timer_.start([this, generation] { timerLoop(generation); });
    } catch (const std::system_error& error) {
        running_ = false;
        failure = error.what();
    }
    lock.unlock();

    if (replaced)
        marlo_log(MARLO_LOG_ERROR, kThreadTag, "Thread already started");
    if (!failure.empty())
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: failed to start the timer thread: %s", "startTimer",
                  failure.c_str());
}

void DebugHelper::stopTimer() {
    MutexLocker lock(timerMutex_);
    if (!running_)
        return;
    running_ = false;
    wakeTimerLoop();
    timer_.stop();
}

void DebugHelper::wakeTimerLoop() {
    MutexLocker lock(sleepMutex_);
    sleepCond_.notify_all();
}

void DebugHelper::timerLoop(unsigned int generation) {
    /* A newer start retires this loop even if the running flag was set again meanwhile. */
    auto current = [this, generation] { return running_ && timerGeneration_ == generation; };
    while (current()) {
        int interval = interval_;
        if (interval >= 1) {
            MutexLocker lock(sleepMutex_);
            sleepCond_.wait_for(lock, std::chrono::milliseconds(interval),
                                [&current] { return !current(); });
        }
        dumpDebugInfo();
    }
}

void DebugHelper::dumpDebugInfo() {
    MutexLocker fileLock(fileMutex_);
    /* The same copies tools read; each is taken under the data mutex. */
    const std::map<unsigned int, StreamInfo> streams = streamInfos();
    const std::map<std::string, CameraInfo> cameras = cameraInfos();
    const std::list<std::string> cache = cachedLines();

    std::ofstream out(platform::SystemPath(kReportPath), std::ios::out | std::ios::trunc);
    if (!out.is_open()) {
        fileLock.unlock();
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: failed to open debug file", "dumpDebugInfo");
        return;
    }

    const std::string shortRule(73, '-');
    const std::string longRule(108, '-');

    out << shortRule << std::endl;
    out << "streamId" << std::setw(14) << "state" << std::setw(16) << "frameNumber" << std::setw(14)
        << "FPS" << std::setw(15) << "dropCount" << std::endl;
    out << shortRule << std::endl;
    for (const auto& [id, info] : streams)
        out << id << "\t\t" << info.state << "\t\t" << info.frameNumber << "\t\t" << info.fps
            << "\t\t" << info.dropCount << std::endl;
    out << shortRule << std::endl;
    out << std::endl;

    out << longRule << std::endl;
    out << std::setw(85) << "NAX process time(us)" << std::endl;
    out << "deviceNode" << std::setw(20) << "state" << std::setw(15) << "dropCount" << std::setw(15)
        << "max" << std::setw(15) << "min" << std::setw(15) << "avg" << std::endl;
    out << longRule << std::endl;
    for (const auto& [node, info] : cameras)
        out << node << "\t\t" << info.state << "\t\t" << info.dropCount << "\t\t" << info.max
            << "\t\t" << info.min << "\t\t" << info.avg << std::endl;
    out << longRule << std::endl;
    out << std::endl;

    for (const std::string& line : cache)
        out << line << std::endl;
}

bool DebugHelper::withStream(unsigned int streamId,
                             const std::function<void(StreamInfo&)>& change) {
    MutexLocker lock(dataMutex_);
    return ChangeEntry(streams_, streamId, change);
}

bool DebugHelper::withCamera(const std::string& deviceNode,
                             const std::function<void(CameraInfo&)>& change) {
    MutexLocker lock(dataMutex_);
    return ChangeEntry(cameras_, deviceNode, change);
}

void DebugHelper::updateStreamState(unsigned int streamId, std::string state) {
    if (!isTimerStarted())
        return;
    if (!withStream(streamId, [&state](StreamInfo& info) { info.state = std::move(state); }))
        LogMissingStream("updateStreamState", streamId);
    dumpDebugInfo();
}

void DebugHelper::updateStreamFrameNumber(unsigned int streamId, int frameNumber,
                                          unsigned long timestampNs) {
    if (!isTimerStarted())
        return;
    auto change = [frameNumber, timestampNs](StreamInfo& info) {
        info.frameNumber = frameNumber;
        uint64_t now = timestampNs;
        /* The frame that closes a window is not counted in the next one. */
        if (now - info.windowStartNs >= kFpsWindowNs) {
            info.windowStartNs = now;
            info.fps = info.frameCount;
            info.frameCount = 0;
        } else {
            ++info.frameCount;
        }
    };
    if (!withStream(streamId, change))
        LogMissingStream("updateStreamFrameNumber", streamId);
}

void DebugHelper::updateStreamDropCount(unsigned int streamId) {
    if (!isTimerStarted())
        return;
    if (!withStream(streamId, [](StreamInfo& info) { ++info.dropCount; }))
        LogMissingStream("updateStreamDropCount", streamId);
    dumpDebugInfo();
}

void DebugHelper::updateCameraState(std::string deviceNode, std::string state) {
    if (!isTimerStarted())
        return;
    if (!withCamera(deviceNode, [&state](CameraInfo& info) { info.state = std::move(state); })) {
        LogMissingNode("updateCameraState", deviceNode);
        return;
    }
    dumpDebugInfo();
}

void DebugHelper::updateCameraDropCount(std::string deviceNode) {
    if (!isTimerStarted())
        return;
    if (!withCamera(deviceNode, [](CameraInfo& info) { ++info.dropCount; })) {
        LogMissingNode("updateCameraDropCount", deviceNode);
        return;
    }
    dumpDebugInfo();
}

void DebugHelper::updateNaxProcessingTime(std::string deviceNode, unsigned int timeUs) {
    if (!isTimerStarted())
        return;
    auto change = [timeUs](CameraInfo& info) {
        /* The maximum is kept since start on purpose: it is the worst case seen. */
        if (info.sampleCount >= kMaxSamples) {
            info.sampleCount = 0;
            info.sum = 0;
            info.min = 0;
            info.avg = 0;
        }
        ++info.sampleCount;
        if (timeUs > info.max) {
            info.max = timeUs;
        } else if (info.min != 0 && timeUs >= info.min) {
            info.sum += timeUs;
            info.avg = static_cast<unsigned int>(info.sum / info.sampleCount);
        } else {
            info.min = timeUs;
        }
    };
    if (!withCamera(deviceNode, change))
        LogMissingNode("updateNaxProcessingTime", deviceNode);
}

void DebugHelper::updateCache(std::string line) {
    if (!isTimerStarted())
        return;
    MutexLocker lock(dataMutex_);
    if (cache_.size() >= kMaxCacheLines)
        cache_.pop_front();
    cache_.push_back(std::move(line));
}

std::map<unsigned int, DebugHelper::StreamInfo> DebugHelper::streamInfos() const {
    MutexLocker lock(dataMutex_);
    return streams_;
}

std::map<std::string, DebugHelper::CameraInfo> DebugHelper::cameraInfos() const {
    MutexLocker lock(dataMutex_);
    return cameras_;
}

std::list<std::string> DebugHelper::cachedLines() const {
    MutexLocker lock(dataMutex_);
    return cache_;
}

}  // namespace tessaro::marlo
