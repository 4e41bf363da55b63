// The one process of ours in the guest beside the service: the service's peers and the host's hand, in one
// loop.
//
// It owns the inboxes of the service's receivers (/run/kipc/<receiver>/usb), speaks to the service as any
// sender
// (/run/kipc/usb/<sender>), runs shell commands, and starts and stops the service. With the host it talks
// over the virtio-serial port "headunit.agent" in lines of text; <hex> is lower-case, two digits a byte, "-"
// for no bytes; <ns> is CLOCK_MONOTONIC of the guest.
//
//   host to guest                          guest to host
//   send <sender> <hex>                    sent <sender> <bytes>  or  error send <sender>: <reason>
//   run <id> <command to end of line>      out <id> <exit status, 128 + signal when killed> <hex of its
//   output> kill <id>                              (its process group is killed; the "out" line follows)
//   start [VAR=value ...]                  started <pid>  or  error start: <reason>
//   stop <signal>                          (the signal is sent; "exited" follows when the service is gone)
//   clock                                  clock <ns>
//   status                                 status <hex>  (datagrams of the service's status socket, joined;
//   "-":
//                                              the service does not answer)
//   tap                                    tapping; from then on each datagram of the tap:
//                                          tap <hex>
//                                          exited code <n>  or  exited signal <n>, after its last log line
//                                          ready                        once, when everything is set up
//                                          rec <ns> <receiver> <hex>    one record from the service
//                                          log <ns> <text>              one line of the service's stderr
//                                          board <ns> <text>            one line of the board's kernel module
//                                          error <text>                 a request that could not be done
//                                          lost <n>                     n lines dropped here: the host does
//                                                                       not read, and 64 MiB were waiting
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace headunit {

constexpr const char* kBoardName = "headunit_board: ";
constexpr const char* kPortName = "headunit.agent";
constexpr const char* kService = "/usr/bin/usbservice";
constexpr const char* kInboxRoot = "/run/kipc";
constexpr const char* kServiceInbox = "/run/kipc/usb";
constexpr const char* kStatusSocket = "/run/kipc/usb/status";
constexpr const char* kTapSocket = "/run/kipc/tap";
constexpr std::size_t kBacklogBytes = 64U << 20;  // what may wait for a host that does not read
constexpr std::size_t kRecordBytes = 256U << 10;  // above what a sender's socket buffer lets through
constexpr std::size_t kLineBytes = 64U << 10;  // a log line without end is forwarded in pieces of this size

// Names of the known receivers, and in hexadecimal those of the bits that have no name.
constexpr std::array kReceivers = {"media",
                                   "navi",
                                   "speech",
                                   "diag",
                                   "test",
                                   "voltage",
                                   "sdcm",
                                   "0000000000004000",
                                   "0000000000200000",
                                   "0000000800000000",
                                   "0000020000000000",
                                   "0000080000000000",
                                   "0000200000000000"};

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Reset(-1); }

    void Reset(int fd) {
        if (m_fd >= 0) close(m_fd);
        m_fd = fd;
    }
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

std::string Reason(int error) {
    return std::strerror(error);
}

std::string Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec);
}

std::string ToHex(std::string_view bytes) {
    if (bytes.empty()) return "-";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += "0123456789abcdef"[value >> 4];
        text += "0123456789abcdef"[value & 15];
    }
    return text;
}

std::optional<unsigned> Nibble(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10U;
    return std::nullopt;
}

std::optional<std::string> FromHex(std::string_view text) {
    if (text == "-") return std::string();
    if (text.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        const auto high = Nibble(text[at]);
        const auto low = Nibble(text[at + 1]);
        if (!high || !low) return std::nullopt;
        bytes += static_cast<char>(*high << 4 | *low);
    }
    return bytes;
}

// Takes the first word off the text.
std::string TakeWord(std::string_view& text) {
    const auto end = text.find(' ');
    std::string word(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    return word;
}

std::optional<sockaddr_un> Address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return std::nullopt;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// The lines to and from the host. Writing never blocks; what does not fit waits, and what cannot wait is
// counted.
class Channel {
public:
    explicit Channel(Descriptor port) : m_port(std::move(port)) {}

    void Send(const std::string& line) {
        if (m_waiting.size() - m_written + line.size() > kBacklogBytes) {
            ++m_lost;
            return;
        }
        if (m_lost > 0) m_waiting += "lost " + std::to_string(std::exchange(m_lost, 0)) + '\n';
        m_waiting += line;
        m_waiting += '\n';
        Flush();
    }

    void Flush() {
        while (m_written < m_waiting.size()) {
            const ssize_t count =
                write(m_port.get(), m_waiting.data() + m_written, m_waiting.size() - m_written);
            if (count <= 0) break;  // EAGAIN: the host reads slowly, POLLOUT will say when to go on
            m_written += static_cast<std::size_t>(count);
        }
        if (m_written == m_waiting.size()) {
            m_waiting.clear();
            m_written = 0;
        } else if (m_written > (1U << 20)) {
            m_waiting.erase(0, m_written);
            m_written = 0;
        }
    }

    // The complete lines that have arrived.
    std::vector<std::string> Receive() {
        std::array<char, 65536> buffer;
        while (true) {
            const ssize_t count = read(m_port.get(), buffer.data(), buffer.size());
            if (count <= 0) break;
            m_arrived.append(buffer.data(), static_cast<std::size_t>(count));
        }
        std::vector<std::string> lines;
        for (auto end = m_arrived.find('\n'); end != std::string::npos; end = m_arrived.find('\n')) {
            lines.push_back(m_arrived.substr(0, end));
            m_arrived.erase(0, end + 1);
        }
        return lines;
    }

    bool IsWaiting() const { return m_written < m_waiting.size(); }
    int get() const { return m_port.get(); }

private:
    Descriptor m_port;
    std::string m_waiting;  // from m_written on still to be sent
    std::size_t m_written = 0;
    std::string m_arrived;
    std::uint64_t m_lost = 0;
};

// A socket that records arrive at, and who has connected to it. Each record becomes a line: "rec" with the
// time and the receiver's name, or without a name "tap".
class Inbox {
public:
    Inbox(std::string path, std::string receiver)
        : m_path(std::move(path)), m_receiver(std::move(receiver)) {}

    // 0 or an error number.
    int Open() {
        const auto address = Address(m_path);
        if (!address) return ENAMETOOLONG;
        const std::string folder = m_path.substr(0, m_path.rfind('/'));
        if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return errno;
        unlink(m_path.c_str());
        m_listener.Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!m_listener) return errno;
        const auto* bound = reinterpret_cast<const sockaddr*>(&*address);
        if (bind(m_listener.get(), bound, sizeof *address) != 0) return errno;
        return listen(m_listener.get(), 16) == 0 ? 0 : errno;
    }

    void AddTo(std::vector<pollfd>& polled) const {
        polled.push_back({m_listener.get(), POLLIN, 0});
        for (const auto& peer : m_peers)
            polled.push_back({peer.get(), POLLIN, 0});
    }

    // Takes what is there, from whomever.
    void Serve(Channel& channel) {
        while (true) {
            Descriptor peer(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!peer) break;
            m_peers.push_back(std::move(peer));
        }
        std::erase_if(m_peers, [&](const Descriptor& peer) { return !Drain(peer, channel); });
    }

private:
    // False when the peer is gone.
    bool Drain(const Descriptor& peer, Channel& channel) const {
        static std::vector<char> buffer(kRecordBytes);
        while (true) {
            const ssize_t count = recv(peer.get(), buffer.data(), buffer.size(), MSG_TRUNC);
            if (count < 0) return errno == EAGAIN || errno == EINTR;
            if (count == 0) return false;
            const auto size = static_cast<std::size_t>(count);
            if (size > buffer.size())
                channel.Send("error a record of " + std::to_string(size) + " bytes was cut");
            const std::string_view record(buffer.data(), std::min(size, buffer.size()));
            const std::string head = m_receiver.empty() ? "tap " : "rec " + Now() + ' ' + m_receiver + ' ';
            channel.Send(head + ToHex(record));
        }
    }

    std::string m_path;
    std::string m_receiver;
    Descriptor m_listener;
    std::vector<Descriptor> m_peers;
};

// A child process with its output on a pipe.
struct Child {
    pid_t pid = -1;
    Descriptor handle;  // pidfd: readable when the process has ended
    Descriptor output;
    std::string text;  // command: all output; service: the begin of a line
};

// 0 or an error number. The child is the leader of a process group, so that killing it takes its children
// along.
int Spawn(Child& child, const std::vector<std::string>& command,
          const std::vector<std::string>& environment) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return errno;
    Descriptor output(ends[0]);
    const Descriptor input(ends[1]);
    fcntl(output.get(), F_SETFL, O_NONBLOCK);
    std::vector<char*> arguments;
    for (const auto& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) return errno;
    if (pid == 0) {
        setpgid(0, 0);
        signal(SIGPIPE, SIG_DFL);
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(nothing, 0);
        dup2(input.get(), 1);
        dup2(input.get(), 2);
        for (const auto& variable : environment)
            putenv(const_cast<char*>(variable.c_str()));
        execv(arguments[0], arguments.data());
        const std::string reason = command[0] + ": " + Reason(errno) + '\n';
        [[maybe_unused]] const ssize_t told = write(2, reason.data(), reason.size());
        _exit(127);
    }
    setpgid(pid, pid);
    child.pid = pid;
    child.handle.Reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    child.output = std::move(output);
    return 0;
}

class Agent {
public:
    explicit Agent(Channel channel) : m_channel(std::move(channel)) {
        lseek(m_kernel.get(), 0, SEEK_END);  // what was before is nobody's answer
    }

    void Run() {
        for (const char* receiver : kReceivers)
            OpenInbox(std::string(kInboxRoot) + '/' + receiver + "/usb", receiver);
        m_channel.Send("ready");
        while (true)
            Turn();
    }

private:
    // Whether it is open.
    bool OpenInbox(const std::string& path, const std::string& receiver) {
        Inbox inbox(path, receiver);
        if (const int error = inbox.Open(); error != 0) {
            m_channel.Send("error inbox " + path + ": " + Reason(error));
            return false;
        }
        m_inboxes.push_back(std::move(inbox));
        return true;
    }

    // One round of the loop. Everything is non-blocking, so all are simply served whenever one of them is
    // ready.
    void Turn() {
        std::vector<pollfd> polled;
        const short wanted = static_cast<short>(POLLIN | (m_channel.IsWaiting() ? POLLOUT : 0));
        polled.push_back({m_channel.get(), wanted, 0});
        for (const auto& inbox : m_inboxes)
            inbox.AddTo(polled);
        for (const auto& [id, child] : m_commands)
            AddTo(polled, child);
        if (m_service) AddTo(polled, *m_service);
        if (m_status) polled.push_back({m_status.get(), POLLIN, 0});
        polled.push_back({m_kernel.get(), POLLIN, 0});
        if (poll(polled.data(), polled.size(), -1) < 0) return;
        if ((polled[0].revents & POLLHUP) != 0) usleep(20'000);  // the host is not there: do not spin

        for (auto& inbox : m_inboxes)
            inbox.Serve(m_channel);
        ServeService();
        ServeCommands();
        ServeStatus();
        ForwardBoard();
        for (const auto& line : m_channel.Receive())
            Obey(line);
        m_channel.Flush();
    }

    static void AddTo(std::vector<pollfd>& polled, const Child& child) {
        polled.push_back({child.handle.get(), POLLIN, 0});
        if (child.output) polled.push_back({child.output.get(), POLLIN, 0});
    }

    void Obey(std::string_view line) {
        const std::string verb = TakeWord(line);
        if (verb == "send") return SendRecord(line);
        if (verb == "run") return RunCommand(line);
        if (verb == "kill") return KillCommand(line);
        if (verb == "start") return StartService(line);
        if (verb == "stop") return StopService(line);
        if (verb == "clock") return m_channel.Send("clock " + Now());
        if (verb == "status") return AskStatus();
        if (verb == "tap") return ListenToTap();
        m_channel.Send("error unknown request: " + verb);
    }

    void SendRecord(std::string_view rest) {
        const std::string sender = TakeWord(rest);
        const auto bytes = FromHex(rest);
        const int error = bytes ? Deliver(sender, *bytes) : EINVAL;
        if (error != 0) return m_channel.Send("error send " + sender + ": " + Reason(error));
        m_channel.Send("sent " + sender + ' ' + std::to_string(bytes->size()));
    }

    // 0 or an error number. A connection stays open; one that the service has left is made anew, once.
    int Deliver(const std::string& sender, const std::string& bytes) {
        int error = ENOTCONN;
        if (const auto known = m_senders.find(sender); known != m_senders.end())
            error = Put(known->second, bytes);
        if (error == 0 || error == EAGAIN) return error;  // EAGAIN: the service reads too slowly
        m_senders.erase(sender);
        const auto address = Address(std::string(kServiceInbox) + '/' + sender);
        if (!address) return ENAMETOOLONG;
        Descriptor connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (!connection) return errno;
        const auto* there = reinterpret_cast<const sockaddr*>(&*address);
        if (connect(connection.get(), there, sizeof *address) != 0) return errno;
        error = Put(connection, bytes);
        if (error == 0) m_senders.emplace(sender, std::move(connection));
        return error;
    }

    static int Put(const Descriptor& connection, const std::string& bytes) {
        const ssize_t count = send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return count < 0 ? errno : 0;
    }

    void RunCommand(std::string_view rest) {
        const std::string id = TakeWord(rest);
        Child child;
        const int error = Spawn(child, {"/bin/sh", "-c", std::string(rest)}, {});
        if (error != 0) return m_channel.Send("out " + id + " 126 " + ToHex(Reason(error)));
        m_commands.insert_or_assign(id, std::move(child));
    }

    void KillCommand(std::string_view id) {
        const auto command = m_commands.find(std::string(id));
        if (command != m_commands.end()) kill(-command->second.pid, SIGKILL);
    }

    void StartService(std::string_view rest) {
        if (m_service)
            return m_channel.Send("error start: it is running as " + std::to_string(m_service->pid));
        std::vector<std::string> environment;
        while (!rest.empty())
            environment.push_back(TakeWord(rest));
        Child child;
        const int error = Spawn(child, {kService}, environment);
        if (error != 0) return m_channel.Send("error start: " + Reason(error));
        m_channel.Send("started " + std::to_string(child.pid));
        m_service = std::move(child);
    }

    void StopService(std::string_view rest) {
        if (!m_service) return m_channel.Send("error stop: it is not running");
        kill(m_service->pid, std::atoi(std::string(rest).c_str()));
    }

    // What has been written to the pipe until now; closes it at its end.
    static void Read(Child& child) {
        std::array<char, 65536> buffer;
        while (child.output) {
            const ssize_t count = read(child.output.get(), buffer.data(), buffer.size());
            if (count < 0) return;
            if (count == 0) return child.output.Reset(-1);
            child.text.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    // Its wait status once it has ended.
    static std::optional<int> Ended(const Child& child) {
        int status = 0;
        if (waitpid(child.pid, &status, WNOHANG) != child.pid) return std::nullopt;
        return status;
    }

    void ForwardLog(bool rest_too) {
        std::string& text = m_service->text;
        std::size_t at = 0;
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', at)) {
            m_channel.Send("log " + Now() + ' ' + text.substr(at, end - at));
            at = end + 1;
        }
        text.erase(0, at);
        if (text.size() < kLineBytes && !(rest_too && !text.empty())) return;
        m_channel.Send("log " + Now() + ' ' + text);
        text.clear();
    }

    void ServeService() {
        if (!m_service) return;
        const auto status = Ended(*m_service);  // first, then read: nothing of it can follow
        Read(*m_service);
        ForwardLog(status.has_value());
        if (!status) return;
        if (WIFSIGNALED(*status))
            m_channel.Send("exited signal " + std::to_string(WTERMSIG(*status)));
        else
            m_channel.Send("exited code " + std::to_string(WEXITSTATUS(*status)));
        m_service.reset();
    }

    void ServeCommands() {
        for (auto command = m_commands.begin(); command != m_commands.end();) {
            auto& [id, child] = *command;
            const auto status = Ended(child);
            Read(child);
            if (!status) {
                ++command;
                continue;
            }
            const int code = WIFSIGNALED(*status) ? 128 + WTERMSIG(*status) : WEXITSTATUS(*status);
            m_channel.Send("out " + id + ' ' + std::to_string(code) + ' ' + ToHex(child.text));
            command = m_commands.erase(command);
        }
    }

    // The service answers whoever connects, without a question. One answer is awaited at a time: who asks
    // meanwhile gets the same.
    void AskStatus() {
        if (m_status) return;
        m_status_text.clear();
        m_status.Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const auto address = Address(kStatusSocket);
        const auto* there = reinterpret_cast<const sockaddr*>(&*address);
        if (m_status && connect(m_status.get(), there, sizeof *address) == 0) return;
        TellStatus();
    }

    void ServeStatus() {
        static std::vector<char> buffer(kRecordBytes);
        while (m_status) {
            const ssize_t count = recv(m_status.get(), buffer.data(), buffer.size(), 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
            if (count < 0) m_status_text.clear();  // the service has died meanwhile
            if (count <= 0) return TellStatus();
            m_status_text.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    void TellStatus() {
        m_status.Reset(-1);
        m_channel.Send("status " + ToHex(m_status_text));
    }

    // The service looks for a listener when it has a record to show.
    void ListenToTap() {
        if (!m_is_tapping) m_is_tapping = OpenInbox(kTapSocket, "");
        if (m_is_tapping) m_channel.Send("tapping");
    }

    // A read of the kernel's log gives one line: "6,339,5140900,-;headunit_board: port 2 off".
    void ForwardBoard() {
        std::array<char, 8192> buffer;
        while (true) {
            const ssize_t count = read(m_kernel.get(), buffer.data(), buffer.size());
            if (count < 0 && errno == EPIPE) continue;  // lines were overwritten before they were read
            if (count <= 0) return;
            std::string_view line(buffer.data(), static_cast<std::size_t>(count));
            line = line.substr(0, line.find('\n'));
            const auto text = line.find(std::string(";") + kBoardName);
            if (text == std::string_view::npos) continue;
            m_channel.Send("board " + Now() + ' ' +
                           std::string(line.substr(text + 1 + std::strlen(kBoardName))));
        }
    }

    Channel m_channel;
    Descriptor m_kernel{open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    std::vector<Inbox> m_inboxes;
    std::map<std::string, Descriptor> m_senders;  // open connections to the service, by sender
    std::map<std::string, Child> m_commands;      // running commands, by the host's id
    std::optional<Child> m_service;
    Descriptor m_status;        // connected while an answer is awaited
    std::string m_status_text;  // what came of it until now
    bool m_is_tapping = false;
};

// The port appears as /dev/vport<n>p<m>; only sysfs knows its name.
Descriptor OpenPort() {
    const std::string folder = "/sys/class/virtio-ports";
    const std::unique_ptr<DIR, int (*)(DIR*)> ports(opendir(folder.c_str()), closedir);
    if (!ports) return Descriptor();
    while (const dirent* entry = readdir(ports.get())) {
        std::string name;
        std::getline(std::ifstream(folder + '/' + entry->d_name + "/name"), name);
        if (name != kPortName) continue;
        return Descriptor(
            open(("/dev/" + std::string(entry->d_name)).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    return Descriptor();
}

// The port is announced a moment after its driver was loaded.
Descriptor WaitForPort() {
    for (int attempt = 0; attempt < 500; ++attempt) {
        Descriptor port = OpenPort();
        if (port) return port;
        usleep(10'000);
    }
    return Descriptor();
}

}  // namespace headunit

int main() {
    signal(SIGPIPE, SIG_IGN);
    mkdir(headunit::kInboxRoot, 0755);
    headunit::Descriptor port = headunit::WaitForPort();
    if (!port) {
        std::fprintf(stderr, "agent: no virtio port %s\n", headunit::kPortName);
        return 1;
    }
    headunit::Agent(headunit::Channel(std::move(port))).Run();
    return 0;
}
