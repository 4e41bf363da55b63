// What the platform's tests share: a folder for sockets, peers at their other ends, standard error in a file.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace test {

extern std::atomic<unsigned long> g_allocations;  // of the linked objects, since start

// A test that waits does it for something, and fails after this time.
inline constexpr std::chrono::seconds kDeadline{20};
bool Eventually(const std::function<bool()>& holds);

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor() { Close(); }
    int get() const { return m_fd; }
    void Close();

private:
    int m_fd = -1;
};

// A folder below /tmp that is KIPC_DIR while it lives.
class KipcFolder {
public:
    KipcFolder();
    ~KipcFolder();
    KipcFolder(const KipcFolder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// Standard error goes to a file while it lives.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    std::vector<std::string> Lines() const;
    std::vector<std::string> LinesWith(std::string_view part) const;
    bool WaitFor(std::string_view part) const;
    int file() const { return m_file.get(); }

private:
    Descriptor m_file;
    Descriptor m_before;
};

// A listening socket of another process: `<root>/media/usb` or `<root>/tap`.
class Inbox {
public:
    explicit Inbox(const std::string& path, int backlog = 8);
    Inbox(Inbox&&) = default;
    int Accept();               // one more connection; its descriptor stays the inbox's
    std::string Receive();      // the next record of the last connection; "" at its end
    bool HasMore(int wait_ms);  // a connection or a record comes within that time
    void CloseConnection() { m_connection.Close(); }
    bool connected() const { return m_connection.get() >= 0; }
    int connection() const { return m_connection.get(); }

private:
    Descriptor m_listener;
    Descriptor m_connection;
};

// A process that sends to the service: connects to `<root>/usb/media` or the like.
class Peer {
public:
    explicit Peer(const std::string& path);
    bool connected() const { return m_connected; }
    bool Send(std::string_view record);
    int get() const { return m_socket.get(); }

private:
    Descriptor m_socket;
    bool m_connected = false;
};

std::vector<std::string> SplitLines(const std::string& text);
std::size_t OpenDescriptors();

struct ThreadCost {
    long sleeps = -1;  // how often it went to sleep by itself
    long ticks = -1;   // processor time, in hundredths of a second
};
ThreadCost CostOf(const std::string& thread_name);

}  // namespace test
