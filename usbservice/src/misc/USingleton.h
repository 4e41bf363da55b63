// What there is once in the process: made on first use through GetInstance, kept until Release.
// Making is not locked: each singleton is first used on one thread before others see it.
#pragma once

#include <cassert>
#include <type_traits>

namespace dcm::usb {

namespace singleton {

// As assert(), but in every build type: a second instance must stop the service in the car as well.
inline void Require(bool holds, const char* expression, unsigned line, const char* function) {
    if (!holds) __assert_fail(expression, "USingleton.h", line, function);
}

}  // namespace singleton

template <typename T>
class USingleton {
public:
    static T* m_pInstance;
    static bool m_bInitialized;  // never reset: once the accessor was used, it was used

    USingleton(const USingleton&) = delete;
    USingleton& operator=(const USingleton&) = delete;
    virtual ~USingleton() = default;

    // Makes the instance when there is none; throws std::bad_alloc.
    static T* GetInstance() {
        if (!m_pInstance) {
            m_bInitialized = true;
            m_pInstance = new T();
        }
        return m_pInstance;
    }

    // Deletes the instance, if any; the next GetInstance makes another one.
    static void Release() {
        delete m_pInstance;
        m_pInstance = nullptr;
    }

protected:
    USingleton() {
        // Deliberate: lines 19 and 20 are what the unit's crash reports know these two assertions by.
        singleton::Require(!m_pInstance, "!m_pInstance", 19, __PRETTY_FUNCTION__);
        singleton::Require(m_bInitialized, "m_bInitialized", 20, __PRETTY_FUNCTION__);
    }
};

template <typename T>
T* USingleton<T>::m_pInstance = nullptr;
template <typename T>
bool USingleton<T>::m_bInitialized = false;

}  // namespace dcm::usb
