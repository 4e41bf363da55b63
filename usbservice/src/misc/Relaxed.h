// A number that one thread writes and others read at any time, alone: no order with anything else is
// promised.
#pragma once

#include <atomic>

namespace dcm::usb {

template <typename T>
class Relaxed {
public:
    constexpr Relaxed() noexcept : m_value(T{}) {}
    constexpr Relaxed(T value) noexcept : m_value(value) {}
    Relaxed(const Relaxed& other) noexcept : m_value(other.load()) {}
    Relaxed& operator=(const Relaxed& other) noexcept {
        store(other.load());
        return *this;
    }
    T operator=(T value) noexcept {
        store(value);
        return value;
    }
    operator T() const noexcept { return load(); }
    T load() const noexcept { return m_value.load(std::memory_order_relaxed); }
    void store(T value) noexcept { m_value.store(value, std::memory_order_relaxed); }

private:
    static_assert(std::atomic<T>::is_always_lock_free);
    std::atomic<T> m_value;
};

}  // namespace dcm::usb
