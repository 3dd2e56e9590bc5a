/* Android's strong pointer to a RefBase object. */
#pragma once

#include <stdint.h>

#include <cstddef>
#include <utility>

namespace android {

template <typename T>
class sp {
  public:
    sp() = default;
    sp(std::nullptr_t) {}
    sp(T* other) : m_ptr(other) {
        if (m_ptr)
            m_ptr->incStrong(this);
    }
    sp(const sp<T>& other) : sp(other.m_ptr) {}
    sp(sp<T>&& other) noexcept : m_ptr(other.m_ptr) { other.m_ptr = nullptr; }
    ~sp() { clear(); }

    sp& operator=(const sp<T>& other) {
        sp<T> copy(other);
        std::swap(m_ptr, copy.m_ptr);
        return *this;
    }
    sp& operator=(sp<T>&& other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }

    void clear() {
        if (m_ptr)
            m_ptr->decStrong(this);
        m_ptr = nullptr;
    }

    T& operator*() const { return *m_ptr; }
    T* operator->() const { return m_ptr; }
    T* get() const { return m_ptr; }
    explicit operator bool() const { return m_ptr != nullptr; }

    bool operator==(std::nullptr_t) const { return m_ptr == nullptr; }
    bool operator!=(std::nullptr_t) const { return m_ptr != nullptr; }

  private:
    T* m_ptr = nullptr;
};

}  // namespace android
