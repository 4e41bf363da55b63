// The words of the transition table: what happens to a port, and what follows in which state.
//
// An event holds rows for all states; a row lists in order what is said, called, told and entered. The runner
// puts a port into the state, lets the event happen, and compares all of it; then it looks at what the port
// remembers (device, capabilities, SDCM's name of it, tty, retries), which no row may change without a word.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "PortBench.h"

namespace test {

// What a port remembers.
struct Memory {
    Phone stored = {};
    int cp = 2;  // what the stored Apple phone answered when it came
    bool tty = false;
    int aoap_retry = 0;
    int reset_retry = 0;
};

// What is expected, step by step.
struct Expected {
    unsigned char port;
    dcm::usb::E_CON_STATE state;
    Memory memory;
    std::vector<int> capa;  // aa, ml, cp, cl
    std::string devid;
    Phone coming;       // of the event's node, also when it goes
    dcm::E_MSGID node;  // id of the message with it
    Phone asked;        // of the event's request
    std::vector<std::string> story, sdcm, monitor, media;

    unsigned Unit() const { return port % 10u; }                        // the unit's own port
    unsigned Transfer() const { return port > 9 ? port / 10u : port; }  // the phone's libusb port
};

using Step = std::function<void(Expected&)>;
using Steps = std::vector<Step>;
using States = std::vector<dcm::usb::E_CON_STATE>;
inline const States kAllStates = {
    dcm::usb::STATE_DETACH,       dcm::usb::STATE_ATTACH,       dcm::usb::STATE_CP_SUPPORT,
    dcm::usb::STATE_AA_CHANGING,  dcm::usb::STATE_ML_CHANGING,  dcm::usb::STATE_CP_CHANGING,
    dcm::usb::STATE_CL_CHANGING,  dcm::usb::STATE_RESETTING,    dcm::usb::STATE_AA,
    dcm::usb::STATE_ML,           dcm::usb::STATE_CP,           dcm::usb::STATE_CL,
    dcm::usb::STATE_AA_RESETTING, dcm::usb::STATE_ML_RESETTING, dcm::usb::STATE_CP_RESETTING,
    dcm::usb::STATE_CL_RESETTING};

struct Row {
    States states;
    Steps steps;
};
using Rows = std::vector<Row>;

struct Event;
using Deed = std::function<void(dcm::usb::UPortState&, const Event&, unsigned char port)>;

struct Event {
    std::string name;
    Memory memory = {};
    Phone coming = {};
    dcm::E_MSGID node = dcm::MSGID_USB_ADD;
    Phone asked = {};
    std::map<std::string, std::vector<int>> results = {};  // of UDevAccessor's operations
    std::vector<Phone> nodes = {};                         // in the list of nodes
    bool net_node = false;
    Deed happen = {};
    Rows rows = {};
};

// As log lines name it.
const char* StateName(dcm::usb::E_CON_STATE state);

// --- steps ---

Step All(Steps steps);  // one after the other
Step Say(int level, const std::string& text);
Step Enter();        // "port2 STATE_X"
Step EnterWithId();  // "port2 2 STATE_X"
Step NotSend();      // "port2 STATE_X, so not send"
Step Go(dcm::usb::E_CON_STATE state);
Step Sleep();

Step ToComing(const char* operation);  // transfer to the phone of the event's node
Step ToStored(const char* operation);  // to the stored one
Step ToAsked(const char* operation);   // to the one of the request
Step ResetComing(const char* operation);
Step ResetStored(const char* operation);
Step ResetAsked(const char* operation);
Step OnUnitPort(const char* operation, const std::string& rest = "");
Step OnWholePort(const char* operation);
Step Find(dcm::usb::E_DEV_TYPE type);  // looks for a node of the type

Step Arm(int id);     // at the monitor: 37, 39, 41, 43
Step Cancel(int id);  // 38, 40, 42, 44

Step TellNode();            // attach or detach of the event's node, to SDCM
Step TellStored(int id);    // of the stored device
Step TellMedia(int cmd);    // of the stored device
Step TellSwitched(int id);  // the phone of the request came back switched
Step TellAsked(int id, int result);
Step TellStoredResult(int id, int result);

Step Store();                               // takes over the event's node
Step Capa(int aa, int ml, int cp, int cl);  // the codes from now on, logged
Step SameCapa();                            // the codes are logged and stay
Step Name();                                // takes over SDCM's name of the request, silently
Step Tty(bool attached);
Step CountAoapRetry();  // with its log line
Step CountResetRetry();
Step ClearAoapRetry();
Step ClearResetRetry();
Step HostPort();  // bus and device number of the unit's port

// What SDCM calls the phone of the event's request; the port remembers kOldDevid before.
inline const std::string kAskedDevid = "dev-9";
inline const std::string kOldDevid = "dev-7";

// Phones, all with the serial number S1.
Phone Android();
Phone Accessory(std::uint16_t pid = 0x2d01);
Phone Mtp();
Phone Apple();
Phone Shuttle();
Phone Stick();
Phone Other(int type = 0);
Phone WithSerial(Phone phone, const std::string& serial);
Phone WithIds(Phone phone, std::uint16_t vid, std::uint16_t pid);
Phone WithType(Phone phone, dcm::usb::E_DEV_TYPE type);

class TransitionTable : public PortBench {
protected:
    // Each event in each state, on a port of the unit's own, on the other, and behind a second hub.
    void Run(const std::vector<Event>& events);

private:
    void Check(const Event& event, const Row& row, dcm::usb::E_CON_STATE state, unsigned char port);
    void Prepare(const Event& event, dcm::usb::E_CON_STATE state, unsigned char port);
    void ExpectMemory(const Expected& expected);
};

}  // namespace test
