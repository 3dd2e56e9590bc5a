/*
 * DebugHelper: a process-wide table of every client stream and capture
 * device node (state, frame rate, drops, 2D-engine processing times) and a
 * bounded list of free-text lines, written as a text report to
 * "/data/vendor/camera/marlo_debug.log". The property
 * "persist.vendor.tessaro.marlo.dbgfile.on" switches it on and off at run
 * time; while it is off every update returns at once.
 */
#pragma once

#include <marlo/base/mutex.h>
#include <marlo/base/thread.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <string>

namespace tessaro::marlo {

class DebugHelper {
  public:
    /* One client camera id of the board's input map. */
    struct StreamInfo {
        std::string state = "STOPPED";
        int frameNumber = 0;
        /* Frames counted in the last completed one-second window. */
        unsigned int fps = 0;
        /* Frames counted so far in the current window. */
        unsigned int frameCount = 0;
        /* Start of the current window, nanoseconds. */
        uint64_t windowStartNs = 0;
        unsigned int dropCount = 0;
    };

    /* One capture device node; times are 2D-engine processing times in microseconds. */
    struct CameraInfo {
        std::string state = "STOPPED";
        unsigned int dropCount = 0;
        unsigned int sampleCount = 0;
        unsigned int max = 0;
        unsigned int min = 0;
        unsigned int avg = 0;
        /* Sum of the samples that entered the average. */
        uint64_t sum = 0;
    };

    /* Most free-text lines kept; the oldest goes first. */
    static constexpr size_t kMaxCacheLines = 4097;

    /* The one helper of the process, built (and initialised) on first use. */
    static DebugHelper& getInstance();

    DebugHelper(const DebugHelper&) = delete;
    DebugHelper& operator=(const DebugHelper&) = delete;

    /* Builds the tables from the board's input map; writes the report once when dumping is off. */
    void initialize();
    /* Reads the on property and, when on, the interval; returns the on value. */
    bool isPropertySupported();
    /*
     * Follows the on property: switches dumping on or off and returns whether
     * it is on. Switching on sets the running flag before startTimer() looks
     * at it, so no report thread is created: the report is written by
     * initialize() (when dumping is off), by state changes and by drops.
     */
    bool isTimerStarted();
    /*
     * Unless the running flag is set: sets it and starts the thread that
     * writes the report every interval (a thread held from before is joined
     * first).
     */
    void startTimer();
    /* Clears the running flag and waits for the report thread, if the flag was set. */
    void stopTimer();
    /* Writes the report file anew. */
    void dumpDebugInfo();

    void updateStreamState(unsigned int streamId, std::string state);
    void updateStreamFrameNumber(unsigned int streamId, int frameNumber, unsigned long timestampNs);
    void updateStreamDropCount(unsigned int streamId);
    void updateCameraState(std::string deviceNode, std::string state);
    void updateCameraDropCount(std::string deviceNode);
    void updateNaxProcessingTime(std::string deviceNode, unsigned int timeUs);
    void updateCache(std::string line);

    /* Copies of the current tables, for tools and tests. */
    std::map<unsigned int, StreamInfo> streamInfos() const;
    std::map<std::string, CameraInfo> cameraInfos() const;
    std::list<std::string> cachedLines() const;
    /* The timer interval in milliseconds last read from the property. */
    int interval() const { return interval_.load(); }
    bool running() const { return running_.load(); }
    /* Whether dumping is on, as the last isTimerStarted() found. */
    static bool started() { return started_.load(); }

  protected:
    /* Reads the configuration and builds the tables (initialize()). */
    DebugHelper();
    /* Stops the report thread and waits for it. */
    ~DebugHelper();

  private:
    /* Reads the interval property with its floor; true when it was too short. */
    bool readInterval();
    /* Applies \a change to the entry under the data mutex; false when there is none. */
    bool withStream(unsigned int streamId, const std::function<void(StreamInfo&)>& change);
    bool withCamera(const std::string& deviceNode, const std::function<void(CameraInfo&)>& change);
    void timerLoop(unsigned int generation);
    /* Ends the report thread's current sleep, so that it looks at the running flag again. */
    void wakeTimerLoop();

    /* Keeps two reports from being written into the file at the same time. */
    Mutex fileMutex_;

    /* Lock order: fileMutex_, then dataMutex_; timerMutex_, then sleepMutex_. */
    mutable Mutex dataMutex_ MARLO_ACQUIRED_AFTER(fileMutex_);
    std::map<unsigned int, StreamInfo> streams_ MARLO_GUARDED_BY(dataMutex_);
    std::map<std::string, CameraInfo> cameras_ MARLO_GUARDED_BY(dataMutex_);
    std::list<std::string> cache_ MARLO_GUARDED_BY(dataMutex_);

    /* Serialises starting and stopping the report thread. */
    Mutex timerMutex_;
    std::atomic<bool> running_{true};
    std::atomic<int> interval_{0};
    /* Counts timer starts, so that a loop of an earlier start ends. */
    std::atomic<unsigned int> timerGeneration_{0};

    /* Lets the report thread's sleep end early when the running flag is cleared. */
    Mutex sleepMutex_ MARLO_ACQUIRED_AFTER(timerMutex_);
    ConditionVariable sleepCond_;

    Thread timer_ MARLO_GUARDED_BY(timerMutex_);

    static std::atomic<bool> started_;
};

}  // namespace tessaro::marlo
