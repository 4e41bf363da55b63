// The reference: what the ports of the unit have to do, written from the tables of states and events as
// plainly as possible. It takes the same events as the service and says what has to be sent and which state
// follows. It knows no threads and no queues: an event has its whole effect at once.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Said.h"
#include "World.h"

namespace test {

enum E_STATE {
    DETACH,
    ATTACH,
    CP_SUPPORT,
    AA_CHANGING,
    ML_CHANGING,
    CP_CHANGING,
    CL_CHANGING,
    RESETTING,
    AA,
    ML,
    CP,
    CL,
    AA_RESETTING,
    ML_RESETTING,
    CP_RESETTING,
    CL_RESETTING,
    kStates
};
extern const char* const kStateNames[kStates];

// A request of SDCM: ids 12 to 17.
struct Request {
    unsigned id = 0;
    unsigned port = 0;  // as SDCM wrote it; the device path decides
    unsigned vid = 0;
    unsigned pid = 0;
    std::string serial;
    std::string path;
    std::string devid;

    Bytes Record() const;
};

// The engineering menu's switches.
struct Switches {
    std::uint32_t signal_test[2] = {};
    std::uint32_t device_mode[2] = {};

    Bytes Record() const;
};

// What vehicle diagnosis allows the unit's ports.
struct Coding {
    unsigned usb = 3;       // 0 to 3
    bool inactive[2] = {};  // ports 1 and 2

    Bytes Adaption() const;  // the requests that set it
    Bytes UsbCoding() const;
};

class Model {
public:
    // The world is the one that the service sees: what is plugged in, and how it answers.
    explicit Model(const World& world) : m_world(world) {}

    // What the device is and has to say for itself, as messages 20, 21, 37 and 38 carry it.
    struct Node {
        unsigned port = 0;
        unsigned dev_type = 0;
        unsigned vid = 0;
        unsigned pid = 0;
        unsigned usb_class = 0;
        unsigned speed = 0;
        std::string serial;
        std::string product;
        std::string manufacturer;
        std::string path;

        Node() = default;
        explicit Node(const Device& device);
        bool IsAccessory() const;
    };

    void Add(const Device& device);     // its last interface came
    void Remove(const Device& device);  // it was in the list of nodes
    void HidAdd(unsigned port);
    void HidRemove() {}  // changes nothing, says nothing
    void TtyAdd();
    void TtyRemove();
    void TtyChange();
    void Ask(Request request);
    void SearchFromSdcm();
    void SearchFromMedia();
    void Switch(const Switches& switches);
    void Configure(const Coding& coding) { m_coding = coding; }
    void TimePasses(std::int64_t nanoseconds);

    // What was said since the last call.
    Said Take();

    std::vector<unsigned> Ports() const;  // that have a state
    E_STATE StateOf(unsigned port) const;
    std::optional<std::int64_t> UntilNextTimer() const;  // nanoseconds
    bool IsPolling() const;
    unsigned PollsInVain() const { return m_polls_in_vain; }  // series of five that ended
    std::string Items() const;                                // what is armed, in words

    // Pairs of state and event that were met.
    const std::set<std::pair<E_STATE, std::string>>& Met() const { return m_met; }

private:
    struct Port {
        unsigned number = 0;
        E_STATE state = DETACH;
        int reset_retry = 0;
        int aoap_retry = 0;
        Node stored;
        unsigned aa = 0;
        unsigned ml = 0;
        unsigned cp = 0;
        unsigned cl = 0;
        bool tty = false;
        std::string devid;

        bool IsApple() const { return stored.dev_type == 6 || stored.dev_type == 8; }
        bool IsAndroid() const { return stored.dev_type == 9 || stored.dev_type == 10; }
    };
    enum E_KIND { CUTTING = 4, CH_TIMEOUT = 5, CARPLAY_TIMEOUT = 6, CARPLAY_CAPA = 7 };
    struct Item {
        E_KIND kind;
        unsigned port;
        std::int64_t since;
        int polls = 0;
        Node node;
    };

    static std::int64_t LimitOf(E_KIND kind);  // milliseconds
    Port& PortOf(unsigned number);
    Port* Existing(unsigned number);
    void Meet(const Port& port, const std::string& event);

    // Events of one port.
    void AddTo(Port& port, const Node& node);
    void ReturnOfSwitched(Port& port, const Node& node, bool carlife);
    void ReturnOfReset(Port& port, const Node& node);
    void AnotherDevice(Port& port, const Node& node);
    void Accept(Port& port, const Node& node);
    void RemoveFrom(Port& port, const Node& node);
    void Deferred(Port& port, const Node& node);
    void ChTimeout(Port& port);
    void CarplayTimeout(Port& port);
    void Poll(Port& port);
    void Accessory(Port& port, const Request& request, bool carlife);
    void MirrorLink(Port& port, const Request& request);
    void CarPlay(Port& port, const Request& request);
    void CarLifeOfApple(Port& port, const Request& request);
    void Reset(Port& port, const Request& request);
    void Search(unsigned number, bool from_media);

    void CheckCapability(Port& port);
    static E_STATE AttachTarget(const Port& port);
    static E_STATE AppleTarget(const Port& port);
    const Device* NodeFor(const Request& request, unsigned port, std::vector<unsigned> types) const;

    // The device accessor; ports as libusb counts them, or the unit's.
    const Device* Open(unsigned vid, unsigned pid, unsigned libusb_port) const;
    void Transfer(const Device& device, const std::string& text);
    int StartAccessory(unsigned vid, unsigned pid, unsigned libusb_port, bool carlife);
    unsigned AskProtocol(unsigned vid, unsigned pid, unsigned libusb_port);
    unsigned AskCarPlay(unsigned vid, unsigned pid, unsigned libusb_port);
    int StartMirrorLink(unsigned vid, unsigned pid, unsigned libusb_port, bool again);
    int ResetPort(unsigned vid, unsigned pid, unsigned unit_port);
    int ResetMirrorLinkPort(unsigned unit_port);
    int Control(unsigned mode, unsigned unit_port);
    int SwitchOffAndOn(unsigned unit_port);
    void TestMode(unsigned unit_port, bool on);
    int PortStatus(unsigned unit_port);
    void RemoveDevice(unsigned port);
    bool Run(unsigned unit_port, const std::string& command);

    // Reports.
    void Event(unsigned id, const Port& port, const Node& node);
    void Answer(unsigned id, unsigned result, const Request& request);
    void AnswerFor(unsigned id, unsigned result, const Port& port, const Node& node);
    void Media(unsigned cmd, const Port& port);
    void Arm(unsigned id, unsigned number);
    void ArmCutting(bool add, const Node& node);
    void Say(E_RECEIVER receiver, unsigned port, Bytes record);

    // Whether what concerns a port is dropped instead of sent.
    bool IsInactive(unsigned port) const;

    // Items of the monitor frame.
    bool IsArmed(E_KIND kind, unsigned port) const;
    void ArmItem(E_KIND kind, unsigned port, const Node& node);
    void CancelItem(E_KIND kind, unsigned port);

    const World& m_world;
    std::map<unsigned, Port> m_ports;
    unsigned m_carplay_port = 0;
    std::vector<Item> m_items;
    std::int64_t m_now = 0;
    unsigned m_polls_in_vain = 0;
    Switches m_switches;
    Coding m_coding;
    Said m_said;
    std::set<std::pair<E_STATE, std::string>> m_met;
};

// The port of a device path, as requests are mapped; 0 when it has none.
unsigned PortOfPath(const std::string& path);

}  // namespace test
