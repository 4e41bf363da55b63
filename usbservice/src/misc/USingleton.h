// What there is once in the process: made on first use through GetInstance, kept until Release.
// Making is not locked: each singleton is first used on one thread before others see it.
#pragma once

#include <cstdio>
#include <cstring>

// glibc's; <cassert> declares it only where assertions are compiled in.
extern "C" void __assert_fail(const char* expression, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

namespace dcm::usb {

namespace singleton {

// "... [with T = dcm::usb::UMount]" or "... [T = dcm::usb::UMount]", by compiler.
template <typename T>
const char* Signature() {
    return __PRETTY_FUNCTION__;
}

// As a failed assert(), but in every build type: a second instance must stop the service in the car as well.
template <typename T>
[[noreturn]] void Fail(const char* expression, unsigned line) {
    char function[256];  // one form for all compilers
    std::snprintf(function, sizeof function, "dcm::usb::USingleton<T>::USingleton() [with %s",
                  std::strstr(Signature<T>(), "T = "));
    __assert_fail(expression, "USingleton.h", line, function);
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
        if (m_pInstance) singleton::Fail<T>("!m_pInstance", 19);
        if (!m_bInitialized) singleton::Fail<T>("m_bInitialized", 20);
    }
};

template <typename T>
T* USingleton<T>::m_pInstance = nullptr;
template <typename T>
bool USingleton<T>::m_bInitialized = false;

}  // namespace dcm::usb
