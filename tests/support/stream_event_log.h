/*
 * A stream event listener for tests: records every event with the thread it
 * arrived on, and waits (bounded) for the events a test expects.
 */
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "marlo/camera/stream_event.h"

namespace marlo_test {

class StreamEventLog {
  public:
    using StreamEvent = tessaro::marlo::StreamEvent;
    using StreamEventType = tessaro::marlo::StreamEventType;

    explicit StreamEventLog(std::chrono::milliseconds wait = std::chrono::seconds(10))
        : wait_(wait) {}

    /* The listener; \a also runs after recording, on the event thread. */
    tessaro::marlo::StreamEventListener listener(
        std::function<void(const StreamEvent&)> also = nullptr) {
        return [this, also](const StreamEvent& event) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                events_.push_back(event);
                threads_.push_back(std::this_thread::get_id());
                cond_.notify_all();
            }
            if (also)
                also(event);
        };
    }

    /* Waits until \a count events of \a type have arrived in all. */
    bool waitFor(StreamEventType type, size_t count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, wait_, [&] { return countLocked(type) >= count; });
    }

    size_t count(StreamEventType type) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(type);
    }

    /* The first event of \a type (a default one when there is none). */
    StreamEvent first(StreamEventType type) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const StreamEvent& event : events_)
            if (event.type == type)
                return event;
        return StreamEvent();
    }

    std::vector<StreamEventType> types() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<StreamEventType> out;
        for (const StreamEvent& event : events_)
            out.push_back(event.type);
        return out;
    }

    std::vector<StreamEvent> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    std::vector<std::thread::id> threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }

    /* "StreamStarted DeviceLost(-100,0) ..." for failure messages. */
    std::string dump() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::ostringstream out;
        for (const StreamEvent& event : events_)
            out << tessaro::marlo::StreamEventTypeName(event.type) << "(" << event.status << ","
                << event.systemError << ") ";
        return out.str();
    }

  private:
    size_t countLocked(StreamEventType type) const {
        return static_cast<size_t>(
            std::count_if(events_.begin(), events_.end(),
                          [type](const StreamEvent& e) { return e.type == type; }));
    }

    std::chrono::milliseconds wait_;
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<StreamEvent> events_;
    std::vector<std::thread::id> threads_;
};

}  // namespace marlo_test
