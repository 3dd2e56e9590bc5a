/*
 * System properties for a development machine: one process-wide store,
 * seeded on first use from the file named by MARLO_PROPERTIES
 * ("name=value" lines, '#' starts a comment).
 */
#include <cutils/properties.h>
#include <marlo_host/hooks.h>

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <map>
#include <mutex>
#include <string>

namespace {

class PropertyStore {
  public:
    bool Get(const std::string& key, std::string* value) {
        std::lock_guard<std::mutex> lock(mutex_);
        SeedLocked();
        auto it = values_.find(key);
        if (it == values_.end())
            return false;
        *value = it->second;
        return true;
    }

    void Set(const std::string& key, const std::string& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        SeedLocked();
        values_[key] = value;
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.clear();
        seeded_ = false;
    }

  private:
    static std::string Trim(const std::string& text) {
        const char* blanks = " \t\r\n";
        size_t first = text.find_first_not_of(blanks);
        if (first == std::string::npos)
            return "";
        size_t last = text.find_last_not_of(blanks);
        return text.substr(first, last - first + 1);
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
                values_[key] = value;
        }
    }

    std::mutex mutex_;
    std::map<std::string, std::string> values_;
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

void marlo_host_properties_reset(void) {
    Store().Reset();
}

}  // extern "C"
