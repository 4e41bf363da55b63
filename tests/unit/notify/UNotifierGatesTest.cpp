// Every kind of message under every configuration of the vehicle: what passes, and what is said when it does
// not.
#include <algorithm>
#include <cstring>
#include <vector>

#include "NotifierBench.h"
#include "gmock/gmock.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long kMedia = 0x800000;
constexpr unsigned long kVoltage = 0x200;
constexpr unsigned long kUsbListeners = 0x0000004000800000;
constexpr unsigned long kStorageListeners = 0x00002A4802A04000;
constexpr unsigned long kUngatedStorageListeners = 0x00002A0800204000;

struct Configuration {
    int coding;    // -1 to 3
    int adaption;  // of the port; 2: not active
    std::uint8_t port;

    unsigned Unit() const { return port % 10u; }
};

struct UNotifierGates : NotifierBench {
    // All ports of the table have the adaption: the numbers above 4 have none, whatever it says.
    static void Set(const Configuration& is) {
        SetCoding(is.coding);
        for (unsigned char port = 0; port <= 4; ++port)
            SetAdaption(port, is.adaption);
        ClearPackets();
        ClearLogs();
    }

    template <typename Expect>
    void ForEachConfiguration(Expect expect) {
        for (int coding = -1; coding <= 3; ++coding) {
            for (int adaption = 0; adaption <= 2; ++adaption) {
                for (std::uint8_t port = 0; port <= 33; ++port) {
                    SCOPED_TRACE(Format("coding %d adaption %d port %d", coding, adaption, port));
                    const Configuration is{coding, adaption, port};
                    Set(is);
                    expect(is);
                    if (HasFailure()) return;
                }
            }
        }
    }

    static Bytes Message(std::uint32_t id, std::uint8_t port) {
        Bytes message(12);
        std::memcpy(&message[4], &id, sizeof id);
        message[8] = port;
        return message;
    }
    static char* Begin(Bytes& bytes) { return reinterpret_cast<char*>(bytes.data()); }

    // What a line says of the port's adaption: there is none above 4.
    static int Said(const Configuration& is, unsigned port) { return port <= 4 ? is.adaption : 0; }
    static LogLine NotActive(const Configuration& is, unsigned port) {
        return Line(128, Format("not send because of not active port%u adaption(%d)", port, Said(is, port)));
    }
    static LogLine NotActiveOrInvalid(const Configuration& is, unsigned port) {
        return Line(128, Format("not send because of not active port%u adaption(%d) or invalid coding(%d)",
                                port, Said(is, port), is.coding));
    }
    static LogLine NotSendTo(const char* name, const Configuration& is, unsigned port) {
        return Line(128,
                    Format("not send to %s because of not active port%u adaption(%d) or invalid coding(%d)",
                           name, port, Said(is, port), is.coding));
    }

    static bool IsInactive(const Configuration& is, unsigned port) { return port <= 4 && is.adaption == 2; }
    static bool TakesPackets(const Configuration& is) { return is.coding >= 2 && !IsInactive(is, is.port); }

    static void ExpectQueued(unsigned queue, bool passes, const Bytes& message, const LogLine& refusal) {
        if (passes) {
            EXPECT_THAT(Drain(queue), ElementsAre(Queued{4096, message}));
            EXPECT_THAT(Logs(), IsEmpty());
        } else {
            EXPECT_THAT(Drain(queue), IsEmpty());
            EXPECT_THAT(Logs(), ElementsAre(refusal));
        }
    }
};

TEST_F(UNotifierGates, TheInboxIsClosedByTheAdaptionAloneAndNeverToTheScan) {
    for (std::uint32_t id = 1; id <= 47; ++id) {
        ForEachConfiguration([this, id](const Configuration& is) {
            Bytes message = Message(id, is.port);
            Notifier().Push2USB(4096, 12, Begin(message));
            const bool isScan = id == 27 || id == 28;
            ExpectQueued(kUsb, isScan || !IsInactive(is, is.Unit()), message, NotActive(is, is.Unit()));
        });
    }
}

TEST_F(UNotifierGates, SdcmHearsWithACodingOfOneAndAlwaysOfTheScan) {
    for (std::uint32_t id = 1; id <= 47; ++id) {
        ForEachConfiguration([this, id](const Configuration& is) {
            Bytes message = Message(id, is.port);
            Notifier().Push2SDCM(4096, 12, Begin(message));
            const bool isScan = id == 3 || id == 4;
            const bool passes = isScan || (is.coding >= 1 && !IsInactive(is, is.Unit()));
            ExpectQueued(kSdcm, passes, message, NotActiveOrInvalid(is, is.Unit()));
        });
    }
}

TEST_F(UNotifierGates, TheMonitorFrameIsClosedByTheAdaptionAloneCancellationsIncluded) {
    for (std::uint32_t id = 31; id <= 44; ++id) {
        ForEachConfiguration([this, id](const Configuration& is) {
            Bytes message = Message(id, is.port);
            Notifier().Push2Umonitor(4096, 12, Begin(message));
            ExpectQueued(kMonitor, !IsInactive(is, is.Unit()), message, NotActive(is, is.Unit()));
        });
    }
}

// A packet's port counts as it is stored: 12 is no port of the table.
TEST_F(UNotifierGates, PacketsOfDevicesNeedACodingOfTwo) {
    ForEachConfiguration([this](const Configuration& is) {
        dcm::usb::st_usb_pkt packet{};
        packet.port = is.port;
        Notifier().Send(&packet);
        if (TakesPackets(is)) {
            EXPECT_THAT(Packets(), ElementsAre(Packet{kUsbListeners, BytesOf(packet)}));
            EXPECT_THAT(Logs(), IsEmpty());
        } else {
            EXPECT_THAT(Packets(), IsEmpty());
            EXPECT_THAT(Logs(), ElementsAre(NotActiveOrInvalid(is, is.port)));
        }
    });
}

TEST_F(UNotifierGates, PacketsOfVolumesAlwaysReachTheListenersThatAreNotGated) {
    ForEachConfiguration([this](const Configuration& is) {
        dcm::usb::st_storage_pkt packet{};
        packet.port = is.port;
        Notifier().Send(&packet);
        if (TakesPackets(is)) {
            EXPECT_THAT(Packets(), ElementsAre(Packet{kStorageListeners, BytesOf(packet)}));
            EXPECT_THAT(Logs(), IsEmpty());
        } else {
            EXPECT_THAT(Packets(), ElementsAre(Packet{kUngatedStorageListeners, BytesOf(packet)}));
            EXPECT_THAT(Logs(), ElementsAre(NotSendTo("media", is, is.port), NotSendTo("speech", is, is.port),
                                            NotSendTo("navi", is, is.port)));
        }
    });
}

TEST_F(UNotifierGates, VoltageSectionsNeedACodingOfTwo) {
    ForEachConfiguration([this](const Configuration& is) {
        Notifier().Send(is.port, dcm::usb::VOLTAGE_CRITICAL);
        if (TakesPackets(is)) {
            ASSERT_EQ(Packets().size(), 2u);
            EXPECT_EQ(Packets()[0].dest, kMedia);
            EXPECT_EQ(Packets()[1].dest, kVoltage);
            EXPECT_THAT(Logs(), ElementsAre(Line(128, Format("port:%d volt_section:2", is.port))));
        } else {
            EXPECT_THAT(Packets(), IsEmpty());
            EXPECT_THAT(Logs(), ElementsAre(NotActiveOrInvalid(is, is.port)));
        }
    });
}

TEST_F(UNotifierGates, DiagnosisAndTheTestInterfaceAreNeverGated) {
    ForEachConfiguration([this](const Configuration&) {
        Notifier().SendOverCurrent(true);
        Notifier().SendMountCheckResult(false, nullptr);
        ASSERT_EQ(Packets().size(), 2u);
        EXPECT_EQ(Packets()[0].dest, 0x0800000000000000u);
        EXPECT_EQ(Packets()[1].dest, 0x0000040000000000u);
    });
}

}  // namespace
}  // namespace test
