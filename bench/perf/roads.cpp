// The events of what is plugged in and out, from the kernel's wake-up on, without the kernel's own work and
// without the programs that the service starts:
//   perf_roads stick|phone
// Attributes are files of a made-up /sys; settings, volumes and mounts are made up as well; the queues and
// the way to other processes are the real ones.
#include <linux/netlink.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../Paths.h"
#include "Measured.h"
#include "board/UPort.h"
#include "event/UNetLink.h"
#include "misc/UMisc.h"
#include "node/UListNode.h"
#include "notify/UNotifier.h"
#include "platform/dcm.h"
#include "platform/trace.h"
#include "shm/ssmInterface.h"

namespace {

using namespace dcm::usb;

constexpr int kLogThreshold = 160;
constexpr long kWarmUp = 10;
constexpr int kSocket = 900;
constexpr pid_t kTool = 4711;
constexpr char kToolSays[] =
    "/dev/sda1: LABEL=\"MUSIC\" UUID=\"1A2B-3C4D\" TYPE=\"vfat\" PARTUUID=\"0001-01\"\n";
constexpr char kMounts[] = "/tmp/USB";

const std::string* message;
std::vector<std::string> messages;
UNetLink* reader;

bool IsOurs(const char* path) {
    return std::strncmp(path, kMounts, sizeof kMounts - 1) == 0 || std::strcmp(path, "/tmp") == 0;
}

}  // namespace

// The kernel.
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int file, int level, int option, const void* value, socklen_t size);
int __real_bind(int file, const sockaddr* address, socklen_t size);
int __real_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
ssize_t __real_recv(int file, void* buffer, std::size_t size, int flags);
int __real_close(int file);
int __real_mkdir(const char* path, mode_t mode);
int __real_chmod(const char* path, mode_t mode);
int __real_rmdir(const char* path);
int __real_pipe2(int ends[2], int flags);

int __wrap_socket(int domain, int type, int protocol) {
    return domain == AF_NETLINK ? kSocket : __real_socket(domain, type, protocol);
}
int __wrap_setsockopt(int file, int level, int option, const void* value, socklen_t size) {
    return file == kSocket ? 0 : __real_setsockopt(file, level, option, value, size);
}
int __wrap_bind(int file, const sockaddr* address, socklen_t size) {
    return file == kSocket ? 0 : __real_bind(file, address, size);
}
int __wrap_select(int files, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    return files == kSocket + 1 ? 1 : __real_select(files, readable, writable, exceptional, timeout);
}
ssize_t __wrap_recv(int file, void* buffer, std::size_t size, int flags) {
    if (file != kSocket) return __real_recv(file, buffer, size, flags);
    std::memcpy(buffer, message->data(), message->size());
    return static_cast<ssize_t>(message->size());
}
int __wrap_close(int file) {
    return file == kSocket ? 0 : __real_close(file);
}
int __wrap_mount(const char*, const char*, const char*, unsigned long, const void*) {
    return 0;
}
int __wrap_umount(const char*) {
    return 0;
}
int __wrap_mkdir(const char* path, mode_t mode) {
    return IsOurs(path) ? 0 : __real_mkdir(path, mode);
}
int __wrap_chmod(const char* path, mode_t mode) {
    return IsOurs(path) ? 0 : __real_chmod(path, mode);
}
int __wrap_rmdir(const char* path) {
    return IsOurs(path) ? 0 : __real_rmdir(path);
}
// The tool that knows volumes has spoken before it was started.
int __wrap_pipe2(int ends[2], int flags) {
    const int result = __real_pipe2(ends, flags);
    if (result == 0 && write(ends[1], kToolSays, sizeof kToolSays - 1) < 0) std::abort();
    return result;
}
pid_t __wrap_fork() {
    return kTool;
}
pid_t __wrap_waitpid(pid_t child, int*, int) {
    return child;
}
}

// Nobody has written a setting.
int ssmInterface::write_ssm(ssmID::e_SsmID, const char*, unsigned int length) {
    return static_cast<int>(length);
}
int ssmInterface::read_ssm(ssmID::e_SsmID, char*) {
    return -1;
}
int ssmInterface::set_notify(ssmID::e_SsmID, unsigned long) {
    return 0;
}
int ssmInterface::sync_data(ssmID::e_SsmID) {
    return 0;
}

namespace {

class Folder {
public:
    Folder() : m_path((std::filesystem::temp_directory_path() / "perf.XXXXXX").string()) {
        if (!mkdtemp(m_path.data())) std::abort();
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& Path() const { return m_path; }
    void Set(const std::string& path, const std::string& text) const {
        const std::filesystem::path file = m_path + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text << "\n";
    }

private:
    std::string m_path;
};

struct Interface {
    const char* usb_class;
    const char* sub_class;
    const char* protocol;
    const char* text;
};

// A device with its interfaces, as sysfs and the kernel's events tell it; `product`: as in PRODUCT=.
void PlugIn(const Folder& sys, const std::string& path, const std::string& product,
            const std::vector<Interface>& interfaces) {
    sys.Set(path + "/bNumInterfaces", " " + std::to_string(interfaces.size()));
    sys.Set(path + "/manufacturer", "SanDisk Corporation");
    sys.Set(path + "/product", "Ultra USB 3.0");
    sys.Set(path + "/serial", "4C530001230504117184");
    sys.Set(path + "/speed", "480");
    sys.Set(path + "/power/level", "auto");
    sys.Set(bench::kHub + "/1-1:1.0/1-1-port" + path.back() + "/overcurrent", "0");
    const std::string ids = "|PRODUCT=" + product;
    messages.push_back(bench::Uevent("add", path,
                                     "SUBSYSTEM=usb|MAJOR=189|MINOR=3|DEVNAME=bus/usb/001/004|"
                                     "DEVTYPE=usb_device" +
                                         ids + "|TYPE=0/0/0|BUSNUM=001|DEVNUM=004"));
    for (std::size_t number = 0; number < interfaces.size(); ++number) {
        const Interface& interface = interfaces[number];
        const std::string below = path + path.substr(path.rfind('/')) + ":1." + std::to_string(number);
        sys.Set(below + "/bInterfaceClass", interface.usb_class);
        sys.Set(below + "/bInterfaceNumber", "0" + std::to_string(number));
        sys.Set(below + "/bInterfaceProtocol", interface.protocol);
        sys.Set(below + "/bInterfaceSubClass", interface.sub_class);
        sys.Set(below + "/bNumEndpoints", "02");
        if (*interface.text) sys.Set(below + "/interface", interface.text);
        messages.push_back(bench::Uevent(
            "add", below, "SUBSYSTEM=usb|DEVTYPE=usb_interface" + ids + "|TYPE=0/0/0|INTERFACE=8/6/80"));
        messages.push_back(
            bench::Uevent("bind", below, "SUBSYSTEM=usb|DEVTYPE=usb_interface|DRIVER=usb-storage"));
    }
    messages.push_back(bench::Uevent("bind", path, "SUBSYSTEM=usb|DEVTYPE=usb_device|DRIVER=usb"));
}

void PlugOut(const std::string& path, std::size_t interfaces) {
    while (interfaces-- > 0) {
        const std::string below = path + path.substr(path.rfind('/')) + ":1." + std::to_string(interfaces);
        messages.push_back(bench::Uevent("unbind", below, "SUBSYSTEM=usb|DEVTYPE=usb_interface"));
        messages.push_back(bench::Uevent("remove", below, "SUBSYSTEM=usb|DEVTYPE=usb_interface"));
    }
    messages.push_back(bench::Uevent("unbind", path, "SUBSYSTEM=usb|DEVTYPE=usb_device"));
    messages.push_back(
        bench::Uevent("remove", path, "SUBSYSTEM=usb|DEVTYPE=usb_device|BUSNUM=001|DEVNUM=004"));
}

void Stick(const Folder& sys) {
    const std::string path = bench::kHub + "/1-1.2";
    const std::string host = path + "/1-1.2:1.0/host0";
    const std::string target = host + "/target0:0:0";
    const std::string unit = target + "/0:0:0:0";
    const std::string disk = unit + "/block/sda";
    const std::string partition = disk + "/sda1";
    // What the service has no node for.
    const std::pair<std::string, const char*> others[] = {
        {host, "scsi"},
        {host + "/scsi_host/host0", "scsi_host"},
        {target, "scsi"},
        {unit, "scsi"},
        {unit + "/scsi_disk/0:0:0:0", "scsi_disk"},
        {unit + "/scsi_device/0:0:0:0", "scsi_device"},
        {unit + "/scsi_generic/sg0", "scsi_generic"},
        {unit + "/bsg/0:0:0:0", "bsg"},
        {"/devices/virtual/bdi/8:0", "bdi"},
    };
    PlugIn(sys, path, "781/5581/100", {{"08", "06", "50", ""}});
    sys.Set(disk + "/disk_partno", "1");
    for (const auto& [other, subsystem] : others)
        messages.push_back(bench::Uevent("add", other, std::string("SUBSYSTEM=") + subsystem));
    messages.push_back(
        bench::Uevent("add", disk, "SUBSYSTEM=block|MAJOR=8|MINOR=0|DEVNAME=sda|DEVTYPE=disk|DISKSEQ=5"));
    messages.push_back(
        bench::Uevent("add", partition,
                      "SUBSYSTEM=block|MAJOR=8|MINOR=1|DEVNAME=sda1|DEVTYPE=partition|DISKSEQ=5|PARTN=1"));
    messages.push_back(
        bench::Uevent("remove", partition,
                      "SUBSYSTEM=block|MAJOR=8|MINOR=1|DEVNAME=sda1|DEVTYPE=partition|DISKSEQ=5|PARTN=1"));
    messages.push_back(
        bench::Uevent("remove", disk, "SUBSYSTEM=block|MAJOR=8|MINOR=0|DEVNAME=sda|DEVTYPE=disk|DISKSEQ=5"));
    for (const auto& [other, subsystem] : others)
        messages.push_back(bench::Uevent("remove", other, std::string("SUBSYSTEM=") + subsystem));
    PlugOut(path, 1);
}

void Phone(const Folder& sys) {
    const std::string path = bench::kHub + "/1-1.1";
    const std::vector<Interface> interfaces = {{"06", "01", "01", "MTP"},
                                               {"ff", "42", "01", "ADB Interface"},
                                               {"02", "02", "01", "CDC ACM"},
                                               {"0a", "00", "00", ""}};
    PlugIn(sys, path, "4e8/6860/400", interfaces);
    PlugOut(path, interfaces.size());
}

void Drain(unsigned position) {
    frame::Message::Record record;
    frame::Message* queue = dcm::DcmInterface::m_pInstance->GetMessageQueue(position);
    while (queue->take(&record)) {
    }
}

void PlugInAndOut(long) {
    for (const std::string& one : messages) {
        message = &one;
        if (reader->DriveNetLink() != 0) std::abort();
    }
    Drain(dcm::DcmInterface::QUEUE_USB);
    Drain(dcm::DcmInterface::QUEUE_MONITOR);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 2) return EXIT_FAILURE;
    ka_log_threshold = kLogThreshold;
    const Folder sys;
    const Folder kipc;
    setenv("KIPC_DIR", kipc.Path().c_str(), 1);
    UString::kRootSysPath = sys.Path().c_str();
    UPort::m_hub_max_port = 2;
    UPort::m_board_type = 4;
    std::string(arguments[1]) == "stick" ? Stick(sys) : Phone(sys);
    {
        UNotifier notifier;
        UNetLink events(&notifier);
        if (events.InitNetlink() != 0) return EXIT_FAILURE;
        reader = &events;
        bench::WarmUpAndMeasure(PlugInAndOut, kWarmUp);
        if (UListNode::GetInstance()->GetSize() != 0) return EXIT_FAILURE;
    }
    delete dcm::DcmInterface::m_pInstance;
}
