// A port state between stand-ins for phones, hub, node list and time, and a real notifier whose queues are
// read back.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "notify/UNotifier.h"
#include "port/UPortState.h"
#include "support/Format.h"
#include "support/MemoryStore.h"
#include "support/RecordingPlatform.h"

namespace test {

// What port logic finds outside, as a test wants it.
struct PortStage {
    // Results of UDevAccessor's operations, by their bare name; 0 for what is not here. Each call takes the
    // first; the last one stays.
    std::map<std::string, std::vector<int>> results;
    // What UListNode::FindUsbNode finds, by units digit and type.
    std::map<std::pair<unsigned, dcm::usb::E_DEV_TYPE>, dcm::usb::FoundUsbNode> nodes;
    std::set<unsigned> net_nodes;         // ports with a network node
    std::set<std::size_t> no_memory_for;  // sizes that new(nothrow) refuses
};
PortStage& TheStage();

// What was called, in order, with its arguments:
//   "StartAOAP 18d1:4ee1 port 2", "StartMLPortReset port 2", "StartEyePattern port 2 on",
//   "StartHubMode port 2 mode 1", "FindUsbNode port 2 type 9", "FindNetNode port 2", "sleep 1"
std::vector<std::string> Deeds();
// Deeds and log lines of at least this level as they followed each other; a log line is "160 text".
std::vector<std::string> Story(int least_level = 0);
// Forgets deeds and log lines.
void ForgetStory();

// A phone as its nodes, requests and records describe it.
struct Phone {
    dcm::usb::E_DEV_TYPE type = dcm::usb::DEV_TYPE_PHONE;
    std::uint16_t vid = 0x04e8;
    std::uint16_t pid = 0x6860;
    std::string serial = "S1";
    std::string product = "Phone";
    std::string manufacturer = "Maker";
    std::string devpath = "/devices/usb1/1-1/1-1.2";
    std::uint8_t usb_class = 0xff;
    std::uint32_t speed = 3;
};

dcm::usb::UMsgNode NodeMessage(dcm::E_MSGID id, const Phone& phone, unsigned char port);
dcm::usb::UMsgChMode ModeRequest(dcm::E_MSGID id, const Phone& phone, unsigned char port,
                                 const std::string& devid);
dcm::usb::UMsgHeader ShortMessage(dcm::E_MSGID id, unsigned char port, std::uint8_t argument = 0);

// Records as texts that say everything that is in them; a wrong size, sender or padding is said as well.
//   "1 port 2 type 9 04e8:6860 class ff speed 3 capa 1,1,2,2 S1 Phone Maker /devices/usb1/1-1/1-1.2"
//   "5 result 0 port 2 04e8:6860 S1 /devices/usb1/1-1/1-1.2 dev-7"
std::vector<std::string> DrainSdcm();
//   "39 port 2"; with a node in it: "37 port 2 type 9 04e8:6860 class ff speed 3 S1 Phone Maker /devices/..."
std::vector<std::string> DrainMonitor();
//   "cmd 2.0 port 2 type 9 04e8:6860 support 0,0,0 class ff speed 3 S1 Phone Maker /devices/..."
std::vector<std::string> TakeMedia();

class PortBench : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    dcm::usb::UNotifier& Notifier() { return *m_notifier; }

    // The state under test, made anew: nothing was ever on this port.
    dcm::usb::UPortState& Renew(unsigned char port = 2);
    dcm::usb::UPortState& State() { return *m_state; }

    // What FindUsbNode finds from now on.
    static void PutNode(const Phone& phone, unsigned char port);

    // Forgets the story and all records.
    static void Forget();

private:
    std::optional<dcm::usb::UNotifier> m_notifier;
    std::optional<dcm::usb::UPortState> m_state;
};

}  // namespace test
