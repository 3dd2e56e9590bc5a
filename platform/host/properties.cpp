/*
 * System properties for a development machine: one process-wide store,
 * seeded on first use from the file named by MARLO_PROPERTIES
 * ("name=value" lines, '#' starts a comment). As in Android's property
 * area, each property has a change serial and the store an area serial,
 * so that a reader notices a change without reading the value.
 */
#include <cutils/properties.h>
#include <marlo_host/hooks.h>
#include <sys/system_properties.h>

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

// A property's record. Records are never freed, so a pointer handed out by
// __system_property_find() stays valid, as on Android; a reset only takes
// their values away.
struct prop_info {
    std::string value;  // guarded by the store's mutex
    bool present = false;
    std::atomic<uint32_t> serial{0};
};

namespace {

class PropertyStore {
  public:
    bool Get(const std::string& key, std::string* value) {
        std::lock_guard<std::mutex> lock(mutex_);
        SeedLocked();
        const prop_info* info = FindLocked(key);
        if (info == nullptr)
            return false;
        *value = info->value;
        return true;
    }

    void Set(const std::string& key, const std::string& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        SeedLocked();
        SetLocked(key, value);
    }

    const prop_info* Find(const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        SeedLocked();
        return FindLocked(key);
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& [key, info] : records_) {
            if (!info->present)
                continue;
            info->value.clear();
            info->present = false;
            info->serial.fetch_add(1, std::memory_order_release);
        }
        seeded_ = false;
    }

    uint32_t AreaSerial() const { return areaSerial_.load(std::memory_order_acquire); }

  private:
    static std::string Trim(const std::string& text) {
        const char* blanks = " \t\r\n";
        size_t first = text.find_first_not_of(blanks);
        if (first == std::string::npos)
            return "";
        size_t last = text.find_last_not_of(blanks);
        return text.substr(first, last - first + 1);
    }

    const prop_info* FindLocked(const std::string& key) const {
        auto it = records_.find(key);
        return it != records_.end() && it->second->present ? it->second.get() : nullptr;
    }

    void SetLocked(const std::string& key, const std::string& value) {
        std::unique_ptr<prop_info>& info = records_[key];
        if (!info)
            info = std::make_unique<prop_info>();
        info->value = value;
        info->serial.fetch_add(1, std::memory_order_release);
        if (!info->present) {
            info->present = true;
            areaSerial_.fetch_add(1, std::memory_order_release);
        }
    }

    void SeedLocked() {
        if (seeded_)
            return;
        seeded_ = true;
        const char* path = getenv("MARLO_PROPERTIES");
        if (path == nullptr || *path == '\0')
            return;
        std::ifstream file(path);
        std::string line;
        while (std::getline(file, line)) {
            size_t hash = line.find('#');
            if (hash != std::string::npos)
                line.erase(hash);
            size_t equals = line.find('=');
            if (equals == std::string::npos)
                continue;
            std::string key = Trim(line.substr(0, equals));
            std::string value = Trim(line.substr(equals + 1));
            if (!key.empty() && value.size() < PROPERTY_VALUE_MAX)
                SetLocked(key, value);
        }
    }

    std::mutex mutex_;
    std::map<std::string, std::unique_ptr<prop_info>> records_;
    std::atomic<uint32_t> areaSerial_{0};
    bool seeded_ = false;
};

PropertyStore& Store() {
    static PropertyStore* store = new PropertyStore();  // outlives static destructors
    return *store;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    std::string stored;
    if (key != nullptr && Store().Get(key, &stored) && !stored.empty()) {
        size_t length = stored.copy(value, PROPERTY_VALUE_MAX - 1);
        value[length] = '\0';
        return static_cast<int>(length);
    }
    if (default_value == nullptr) {
        value[0] = '\0';
        return 0;
    }
    size_t length = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    char value[PROPERTY_VALUE_MAX];
    if (property_get(key, value, nullptr) == 0)
        return default_value;
    static const char* const kTrue[] = {"1", "y", "yes", "on", "true"};
    static const char* const kFalse[] = {"0", "n", "no", "off", "false"};
    for (const char* text : kTrue)
        if (strcmp(value, text) == 0)
            return 1;
    for (const char* text : kFalse)
        if (strcmp(value, text) == 0)
            return 0;
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    char value[PROPERTY_VALUE_MAX];
    if (property_get(key, value, nullptr) == 0)
        return default_value;
    // As libcutils: leading digits count ("12abc" is 12), nothing at all or
    // an overflow gives the default, and the caller's errno survives.
    int saved_errno = errno;
    char* end = nullptr;
    errno = 0;
    intmax_t result = strtoimax(value, &end, 0);
    if ((errno == ERANGE && (result == INTMAX_MIN || result == INTMAX_MAX)) || end == value)
        result = default_value;
    errno = saved_errno;
    return result;
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    int64_t result = property_get_int64(key, default_value);
    if (result < INT32_MIN || result > INT32_MAX)
        return default_value;
    return static_cast<int32_t>(result);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0')
        return -1;
    if (value == nullptr)
        value = "";
    if (strlen(value) >= PROPERTY_VALUE_MAX)
        return -1;
    Store().Set(key, value);
    return 0;
}

const prop_info* __system_property_find(const char* name) {
    return name != nullptr ? Store().Find(name) : nullptr;
}

uint32_t __system_property_serial(const prop_info* pi) {
    return pi->serial.load(std::memory_order_acquire);
}

uint32_t __system_property_area_serial(void) {
    return Store().AreaSerial();
}

void marlo_host_properties_reset(void) {
    Store().Reset();
}

}  // extern "C"
