/* HIDL's string and vector types (the parts this platform needs). */
#pragma once

#include <stddef.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace android {
namespace hardware {

class hidl_string {
  public:
    hidl_string() = default;
    hidl_string(const char* s) : mBuffer(s ? s : "") {}
    hidl_string(const std::string& s) : mBuffer(s) {}

    const char* c_str() const { return mBuffer.c_str(); }
    size_t size() const { return mBuffer.size(); }
    bool empty() const { return mBuffer.empty(); }
    operator std::string() const { return mBuffer; }

    bool operator==(const hidl_string& other) const { return mBuffer == other.mBuffer; }
    bool operator!=(const hidl_string& other) const { return mBuffer != other.mBuffer; }
    bool operator==(const char* s) const { return s != nullptr && mBuffer == s; }

  private:
    std::string mBuffer;
};

template <typename T>
class hidl_vec {
  public:
    hidl_vec() = default;
    hidl_vec(size_t size) : mBuffer(size) {}
    hidl_vec(std::initializer_list<T> list) : mBuffer(list) {}
    hidl_vec(const std::vector<T>& other) : mBuffer(other) {}
    hidl_vec(std::vector<T>&& other) : mBuffer(std::move(other)) {}

    size_t size() const { return mBuffer.size(); }
    void resize(size_t size) { mBuffer.resize(size); }
    T* data() { return mBuffer.data(); }
    const T* data() const { return mBuffer.data(); }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    typename std::vector<T>::iterator begin() { return mBuffer.begin(); }
    typename std::vector<T>::iterator end() { return mBuffer.end(); }
    typename std::vector<T>::const_iterator begin() const { return mBuffer.begin(); }
    typename std::vector<T>::const_iterator end() const { return mBuffer.end(); }
    operator std::vector<T>() const { return mBuffer; }

  private:
    std::vector<T> mBuffer;
};

}  // namespace hardware
}  // namespace android
