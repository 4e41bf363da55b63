// The service as a whole: makes its three frames in their order, and starts them. Main thread.
#pragma once

namespace dcm {

namespace usb {
class UEventFrame;
class UFrame;
class UMonitorFrame;
}  // namespace usb

class UBegin {
public:
    // A frame for which there is no memory is left out; the others run without it. May throw std::bad_alloc
    // when not even the platform object can be made.
    UBegin();
    // Waits for the frames to end, the last one first. The unit never comes here.
    virtual ~UBegin();
    UBegin(const UBegin&) = delete;
    UBegin& operator=(const UBegin&) = delete;

private:
    usb::UFrame* m_frame = nullptr;                 // owned
    usb::UEventFrame* m_event_frame = nullptr;      // owned
    usb::UMonitorFrame* m_monitor_frame = nullptr;  // owned
};

}  // namespace dcm
