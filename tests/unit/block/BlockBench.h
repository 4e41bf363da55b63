// Sticks, card readers and CD drives on the unit's ports: plugs in what a test describes, as the kernel tells
// it, and says in short what media was told. Volumes are identified by a real child at a real pipe, mounted
// in a made-up mount table.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "node/UNodeBlock.h"
#include "unit/node/NodeBench.h"
#include "unit/storage/FakeKernel.h"

namespace test {

// What the block-id tool prints, by device file; of any other device nothing.
using Volumes = std::vector<std::pair<std::string, std::string>>;
extern Volumes volumes;

// What went to the shell, and what it answers.
struct Shell {
    std::vector<std::string> commands;
    int result = 0;
};
extern Shell shell;

inline const Device kStick = {.vid = 0x0781, .pid = 0x5567, .interfaces = {{"08", "06", "50"}}};
inline const Device kCdDrive = {.vid = 0x2166, .pid = 0x000c, .interfaces = {{"08", "06", "50"}}};

class BlockBench : public NodeBench {
protected:
    void SetUp() override;
    void TearDown() override;

    // Path of a disk behind the first interface of a USB device.
    static std::string DiskPath(const std::string& device, const std::string& name = "sda");
    static std::string PartitionPath(const std::string& device, int number, const std::string& name = "sda");

    // The USB device with its interface; forgets what that told everybody.
    void PlugInDevice(const std::string& path, const Device& device = kStick);

    // The block device's event, as an add of the kernel. `partno`: the disk's attribute; empty: the kernel
    // has none.
    dcm::usb::UNodeBlock* AddDisk(const std::string& device, const std::string& partno = "",
                                  const std::string& name = "sda");
    dcm::usb::UNodeBlock* AddPartition(const std::string& device, int number,
                                       const std::string& name = "sda");
    void Change(const std::string& path);

    static FakeEvent BlockEvent(const std::string& path, dcm::usb::E_BLOCK_DEVTYPE type);

    // What the block-id tool will say of /dev/<name>.
    static void Volume(const std::string& name, const std::string& label, const std::string& uuid,
                       const std::string& type);

    // Storage packets since the last call: "(3, 0, 1) port 1 /tmp/USB/PORT1/PART1/ STICK 1234-ABCD vfat".
    static std::vector<std::string> Told();

    // Mounts that were tried since the last call: "sda1 PORT1/PART1 vfat".
    static std::vector<std::string> Tried();

    // Lines of the block node alone, without those of a level below 64.
    static std::vector<LogLine> NodeLogs();
};

}  // namespace test
