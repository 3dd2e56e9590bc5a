/*
 * A system property read at every call of some hot path (the log level at
 * every log call, the debug switch at every converted buffer), parsed once
 * per change instead of once per read.
 *
 * The platform's property area gives each property a change serial and
 * itself an area serial that moves when a property first gets a value. A
 * read compares the serial with the one the cached value was read under
 * and reads the property again only when they differ, so every change is
 * seen by the next read, as if the property were read every time.
 */
#pragma once

#include <stdint.h>
#include <sys/system_properties.h>

#include <atomic>

#include <marlo/base/mutex.h>

namespace tessaro::marlo::detail {

class CachedProperty {
  public:
    /* Reads the property \a name and turns its text into the cached value. */
    using Reader = int32_t (*)(const char* name);

    CachedProperty(const char* name, Reader reader);

    CachedProperty(const CachedProperty&) = delete;
    CachedProperty& operator=(const CachedProperty&) = delete;

    /* The value \a reader gives now. Safe from any thread. */
    int32_t get();

  private:
    /* Serial and value in one word, so a reader never pairs them wrongly. */
    static uint64_t Pack(uint32_t serial, int32_t value) {
        return static_cast<uint64_t>(serial) << 32 | static_cast<uint32_t>(value);
    }
    uint32_t currentSerial(const prop_info* info) const;
    int32_t refresh() MARLO_EXCLUDES(refreshMutex_);

    const char* name_;
    Reader reader_;
    /* Found once the property has a value; valid for the process's life. */
    std::atomic<const prop_info*> info_{nullptr};
    std::atomic<bool> valid_{false};
    std::atomic<uint64_t> cached_{0};
    /* Serialises refreshes, so the last one stored read the newest value. */
    Mutex refreshMutex_;
};

}  // namespace tessaro::marlo::detail
