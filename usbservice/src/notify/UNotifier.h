// The one way by which any part of the service tells something to anybody else: frame messages to the
// service's own queues and to SDCM, packets to the other processes, most of them gated by the vehicle's USB
// configuration.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/kipc.h"
#include "record/DiagPacket.h"
#include "record/FrameMessage.h"
#include "record/MediaPacket.h"

namespace frame {
class Message;
}

namespace dcm::usb {

class USetting;

// One per frame, used on that frame's thread; what the frame made holds it without owning it.
// Nothing fails towards the caller: what cannot be sent is logged and dropped. Records are copied.
class UNotifier {
public:
    UNotifier();
    ~UNotifier();
    UNotifier(const UNotifier&) = delete;
    UNotifier& operator=(const UNotifier&) = delete;

    // Frame messages; at least 12 bytes; callers pass kSourceUsb as `src`. Dropped while the port is
    // inactive.
    void Push2USB(unsigned long src, unsigned int size, char* buf);
    void Push2SDCM(unsigned long src, unsigned int size, char* buf);
    void Push2Umonitor(unsigned long src, unsigned int size, char* buf);

    // Packets to other processes. The first is not gated.
    void Send(unsigned long dest, unsigned int size, char* buf);
    void Send(st_usb_pkt* packet);
    void Send(st_storage_pkt* packet);
    void Send(unsigned char port, E_VOLTAGE_SECTION section);

    // Requests to the monitor frame to arm (true) or cancel (false) a supervision item.
    void PushMountError(bool isAdd, unsigned char port, st_storage_pkt* packet);  // null: a zero packet
    void PushOverCurrent(bool isAdd, unsigned char port, const char* devpath);
    void PushVoltage(bool isAdd, unsigned char port, bool isHubDetect);
    void PushCutting(bool isAdd, UMsgNode* msg);
    void PushChTimeout(bool isAdd, unsigned char port);
    void PushCarplayTimeout(bool isAdd, unsigned char port);
    void PushCarplayCapa(bool isAdd, unsigned char port);

    // Reports to vehicle diagnosis.
    void SendExternalOpticalStatus();
    void SendExternalOpticalErrorCode();
    void SendStatusCommunication(bool on);
    void SendDeviceState(StDiagUsbDeviceStateData& data);
    void SendOverCurrent(bool present);
    void SendFaultyCommunication(unsigned char result);
    void SendSocketOpenCircuit(unsigned char port, bool result);
    void SendSocketShortCircuit(unsigned char port, bool result);
    void SendDiagnosisTestResult(bool ok);
    void SendDiagHubSupport(bool supported);

    // Answer to a mount check of the test interface.
    void SendMountCheckResult(bool result, const char* mnt_path);

private:
    std::shared_ptr<kipc::Interface> m_process;
    frame::Message* m_usb_message = nullptr;      // not owned
    frame::Message* m_sdcm_message = nullptr;     // not owned
    frame::Message* m_monitor_message = nullptr;  // not owned
    USetting* m_setting = nullptr;                // not owned
};

}  // namespace dcm::usb
