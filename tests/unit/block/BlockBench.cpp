#include "unit/block/BlockBench.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "storage/UMount.h"

namespace test {

using namespace dcm::usb;

Volumes volumes;
Shell shell;

void BlockBench::SetUp() {
    ResetKernel();
    volumes.clear();
    shell = {};
    NodeBench::SetUp();
    UMount::GetInstance();
    ClearLogs();
}

void BlockBench::TearDown() {
    NodeBench::TearDown();
    UMount::Release();
}

std::string BlockBench::DiskPath(const std::string& device, const std::string& name) {
    return InterfacePath(device, 0) + "/host0/target0:0:0/0:0:0:0/block/" + name;
}

std::string BlockBench::PartitionPath(const std::string& device, int number, const std::string& name) {
    return DiskPath(device, name) + "/" + name + std::to_string(number);
}

void BlockBench::PlugInDevice(const std::string& path, const Device& device) {
    PlugIn(path, device);
    ClearLogs();
    ClearPackets();
    Drain(kUsb);
    Drain(kMonitor);
}

FakeEvent BlockBench::BlockEvent(const std::string& path, E_BLOCK_DEVTYPE type) {
    FakeEvent event;
    event.subsystem = SUBSYSTEM_BLOCK;
    event.devpath = path;
    event.devname = path.substr(path.rfind('/') + 1);
    event.block_devtype = type;
    return event;
}

UNodeBlock* BlockBench::AddDisk(const std::string& device, const std::string& partno,
                                const std::string& name) {
    const std::string path = DiskPath(device, name);
    Attribute(path + "/disk_partno", partno);
    FakeEvent event = BlockEvent(path, BLOCK_DEVTYPE_DISK);
    return static_cast<UNodeBlock*>(Add(event));
}

UNodeBlock* BlockBench::AddPartition(const std::string& device, int number, const std::string& name) {
    FakeEvent event = BlockEvent(PartitionPath(device, number, name), BLOCK_DEVTYPE_PARTITION);
    return static_cast<UNodeBlock*>(Add(event));
}

void BlockBench::Change(const std::string& path) {
    FakeEvent event = BlockEvent(path, BLOCK_DEVTYPE_NONE);
    event.action = ACTION_CHANGE;
    Find(path)->ActionChange(&event);
}

void BlockBench::Volume(const std::string& name, const std::string& label, const std::string& uuid,
                        const std::string& type) {
    volumes.emplace_back("/dev/" + name, "/dev/" + name + ": LABEL=\"" + label + "\" UUID=\"" + uuid +
                                             "\" TYPE=\"" + type + "\"\n");
}

std::vector<std::string> BlockBench::Told() {
    std::vector<std::string> told;
    for (const Packet& packet : Packets()) {
        if (packet.dest != kDestStorageSet) continue;
        st_storage_pkt record;
        EXPECT_EQ(packet.bytes.size(), sizeof record);
        std::memcpy(&record, packet.bytes.data(), sizeof record);
        EXPECT_EQ(record.kind, 3U);
        EXPECT_EQ(record.dev_type, 5U);
        std::ostringstream line;
        line << "(" << record.cmd << ", " << record.sub_cmd << ", " << int(record.partition) << ") port "
             << record.port;
        for (const char* text : {record.mount_path, record.label, record.uuid, record.fs_type})
            if (*text) line << " " << text;
        told.push_back(line.str());
    }
    ClearPackets();
    return told;
}

std::vector<std::string> BlockBench::Tried() {
    std::vector<std::string> tried;
    for (const std::string& call : Kernel().calls) {
        std::istringstream words(call);
        std::string what, device, directory, type, flags;
        words >> what >> device >> directory >> type >> flags;
        if (what != "mount" || flags != "0") continue;  // each failure is tried once more, read-only
        tried.push_back(device.substr(5) + " " + directory.substr(5) + " " + type);
    }
    Kernel().calls.clear();
    return tried;
}

std::vector<LogLine> BlockBench::NodeLogs() {
    std::vector<LogLine> lines;
    for (const LogLine& line : Logs())
        if (line.level >= 64 && line.file.ends_with("UNodeBlock.cpp")) lines.push_back(line);
    return lines;
}

}  // namespace test

extern "C" {

// In the child, in the tool's place: what it prints, and the end. Nothing is allocated here.
int __wrap_execv(const char* path, char* const arguments[]) {
    if (std::strcmp(path, "/usr/bin/blkid2") != 0 || std::strcmp(arguments[1], "-d") != 0) _exit(3);
    for (const auto& [device, output] : test::volumes) {
        if (device != arguments[2]) continue;
        if (write(STDOUT_FILENO, output.data(), output.size()) < 0) _exit(4);
        break;
    }
    _exit(0);
}

// USpawn::RunCmd
int __wrap__ZN3dcm3usb6USpawn6RunCmdEPKc(const char* command) {
    test::shell.commands.emplace_back(command);
    if (test::shell.result != 0) errno = ENOENT;
    return test::shell.result;
}
}
