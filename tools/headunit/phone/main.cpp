// A phone on a USB port of the virtual machine.
//
//   headunit_phone SOCKET DESCRIPTION [OVERRIDE...]
//
// Listens on SOCKET for the virtual machine's usb-redir device (one connection; the program ends with it),
// and is there the phone that the file DESCRIPTION describes. Each OVERRIDE is a line of TOML that is put
// over the file's: 'serial="ABC"', 'modes.phone.pid=0x1234', 'returns=["never"]'. The keys are explained in
// tools/headunit/phones/README.md.
//
// Commands come on stdin, one a line, and end with it:
//
//   leave           leaves the bus
//   come MODE       leaves, if it is there, and comes as MODE
//   cut             its port has lost power: it leaves, and forgets all that happened
//   restore         the power is back: it comes in its first mode
//
// A phone without power ignores leave and come. Leaving and coming by command ends what a request has
// started.
//
// What happens is told on stdout, one line each, <ns> being CLOCK_MONOTONIC and <hex> two lower-case digits a
// byte, "-" for none:
//
//   <ns> listening                  the virtual machine may connect
//   <ns> came MODE                  it is plugged in; the machine sees it 0.2 s after it left or later
//   <ns> left
//   <ns> cut
//   <ns> restored
//   <ns> reset                      the bus was reset, as each enumeration begins
//   <ns> configured N               SET_CONFIGURATION, 0 included
//   <ns> transfer TYPE REQUEST VALUE INDEX <hex> ANSWER
//                                   a control request that is no standard one: its setup in hexadecimal, the
//                                   bytes that it brought, and the answer: ok, stall, never, or <hex>
//
// Errors go to stderr, and the exit status is 1; 2 when the description is wrong.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <usbredirparser.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <variant>

#include "description.h"
#include "phone.h"

namespace headunit {

using Clock = std::chrono::steady_clock;

std::string Hex(const std::uint8_t* bytes, std::size_t count) {
    if (count == 0) return "-";
    std::string text;
    for (std::size_t at = 0; at < count; ++at) {
        text += "0123456789abcdef"[bytes[at] >> 4];
        text += "0123456789abcdef"[bytes[at] & 15];
    }
    return text;
}

void Tell(const std::string& what) {
    std::cout << Clock::now().time_since_epoch() / std::chrono::nanoseconds(1) << ' ' << what << std::endl;
}

std::string InWords(const Answer& answer, std::size_t sent) {
    if (answer.kind == Answer::kStall) return "stall";
    if (answer.kind == Answer::kNever) return "never";
    return sent > 0 ? Hex(answer.data.data(), sent) : "ok";
}

[[noreturn]] void FailWithErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
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
    int m_fd;
};

// The phone's side of the connection with the virtual machine: the phone's coming, leaving and transfers as
// messages of the redirection protocol.
class Bus {
public:
    // leaves: called when an answer that makes the phone leave has been given.
    Bus(int socket, Phone& phone, std::function<void()> ready, std::function<void()> leaves)
        : m_socket(socket), m_phone(phone), m_ready(std::move(ready)), m_leaves(std::move(leaves)) {
        usbredirparser& parser = *m_parser;
        parser.priv = this;
        parser.log_func = [](void*, int level, const char* text) {
            if (level <= usbredirparser_warning) std::cerr << "headunit_phone: " << text << std::endl;
        };
        parser.read_func = [](void* self, std::uint8_t* data, int count) {
            return static_cast<Bus*>(self)->ReadSocket(data, count);
        };
        parser.write_func = [](void* self, std::uint8_t* data, int count) {
            return static_cast<Bus*>(self)->WriteSocket(data, count);
        };
        parser.hello_func = [](void* self, usb_redir_hello_header*) { static_cast<Bus*>(self)->m_ready(); };
        parser.device_disconnect_ack_func = [](void* self) { static_cast<Bus*>(self)->Acknowledged(); };
        parser.reset_func = [](void* self) { static_cast<Bus*>(self)->Reset(); };
        SetConfigurationCallbacks();
        SetDataCallbacks();

        std::array<std::uint32_t, USB_REDIR_CAPS_SIZE> caps{};
        for (const int cap : {usb_redir_cap_connect_device_version, usb_redir_cap_device_disconnect_ack,
                              usb_redir_cap_ep_info_max_packet_size, usb_redir_cap_64bits_ids})
            usbredirparser_caps_set_cap(caps.data(), cap);
        usbredirparser_init(m_parser.get(), "headunit_phone", caps.data(), caps.size(),
                            usbredirparser_fl_usb_host);
    }

    // False when the connection is gone.
    bool Read() {
        while (true) {
            const int result = usbredirparser_do_read(m_parser.get());
            if (result == usbredirparser_read_parse_error)
                continue;  // told by log_func; it goes on behind it
            return !m_closed;
        }
    }

    bool Write() {
        while (WantsToWrite()) {
            if (usbredirparser_do_write(m_parser.get()) != 0) return false;
            if (m_blocked) break;
        }
        return true;
    }

    bool WantsToWrite() const { return usbredirparser_has_data_to_write(m_parser.get()) > 0; }

    void Come(const std::string& mode) {
        m_mode = mode;
        m_configuration = 0;
        if (!m_unacknowledged) Connect();
    }

    void Leave() {
        if (!m_mode) return;
        m_mode.reset();
        if (!m_connected) return;
        m_connected = false;
        m_pending.clear();
        usbredirparser_send_device_disconnect(m_parser.get());
        m_unacknowledged =
            usbredirparser_peer_has_cap(m_parser.get(), usb_redir_cap_device_disconnect_ack) != 0;
        Tell("left");
    }

private:
    using Parser = std::unique_ptr<usbredirparser, decltype(&usbredirparser_destroy)>;
    using Pending = std::variant<usb_redir_control_packet_header, usb_redir_bulk_packet_header>;

    int ReadSocket(std::uint8_t* data, int count) {
        const ssize_t got = recv(m_socket, data, static_cast<std::size_t>(count), 0);
        if (got > 0) return static_cast<int>(got);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
        m_closed = true;
        return -1;
    }

    int WriteSocket(const std::uint8_t* data, int count) {
        const ssize_t sent = send(m_socket, data, static_cast<std::size_t>(count), MSG_NOSIGNAL);
        m_blocked = sent < 0 && (errno == EAGAIN || errno == EINTR);
        return m_blocked ? 0 : static_cast<int>(sent);
    }

    void SetConfigurationCallbacks() {
        usbredirparser& parser = *m_parser;
        parser.set_configuration_func = [](void* self, std::uint64_t id,
                                           usb_redir_set_configuration_header* header) {
            static_cast<Bus*>(self)->SetConfiguration(id, header->configuration);
        };
        parser.get_configuration_func = [](void* self, std::uint64_t id) {
            static_cast<Bus*>(self)->SendConfiguration(id, usb_redir_success);
        };
        parser.set_alt_setting_func = [](void* self, std::uint64_t id,
                                         usb_redir_set_alt_setting_header* header) {
            const bool known = header->alt == 0;  // no interface has another one
            static_cast<Bus*>(self)->SendAltSetting(id, header->interface,
                                                    known ? usb_redir_success : usb_redir_stall);
        };
        parser.get_alt_setting_func = [](void* self, std::uint64_t id,
                                         usb_redir_get_alt_setting_header* header) {
            static_cast<Bus*>(self)->SendAltSetting(id, header->interface, usb_redir_success);
        };
    }

    void SetDataCallbacks() {
        usbredirparser& parser = *m_parser;
        parser.control_packet_func = [](void* self, std::uint64_t id, usb_redir_control_packet_header* header,
                                        std::uint8_t* data, int count) {
            auto& bus = *static_cast<Bus*>(self);
            bus.Control(id, *header, data, static_cast<std::size_t>(count));
            usbredirparser_free_packet_data(bus.m_parser.get(), data);
        };
        parser.bulk_packet_func = [](void* self, std::uint64_t id, usb_redir_bulk_packet_header* header,
                                     std::uint8_t* data, int) {
            auto& bus = *static_cast<Bus*>(self);
            bus.Bulk(id, *header);
            usbredirparser_free_packet_data(bus.m_parser.get(), data);
        };
        parser.interrupt_packet_func = [](void* self, std::uint64_t id,
                                          usb_redir_interrupt_packet_header* header, std::uint8_t* data,
                                          int) {
            auto& bus = *static_cast<Bus*>(self);
            header->status = usb_redir_success;
            if (bus.m_connected)
                usbredirparser_send_interrupt_packet(bus.m_parser.get(), id, header, nullptr, 0);
            usbredirparser_free_packet_data(bus.m_parser.get(), data);
        };
        parser.start_interrupt_receiving_func = [](void* self, std::uint64_t id,
                                                   usb_redir_start_interrupt_receiving_header* header) {
            static_cast<Bus*>(self)->SendInterruptStatus(id, header->endpoint);
        };
        parser.stop_interrupt_receiving_func = [](void* self, std::uint64_t id,
                                                  usb_redir_stop_interrupt_receiving_header* header) {
            static_cast<Bus*>(self)->SendInterruptStatus(id, header->endpoint);
        };
        parser.cancel_data_packet_func = [](void* self, std::uint64_t id) {
            static_cast<Bus*>(self)->Cancel(id);
        };
    }

    const Shape& shape() const { return m_phone.shape(*m_mode); }

    // What the machine still sent to the phone that left has arrived: the next one may be announced.
    void Acknowledged() {
        m_unacknowledged = false;
        if (m_mode) Connect();
    }

    void Connect() {
        const Mode& mode = shape().mode();
        SendInterfaces(*shape().configuration(1));
        usb_redir_device_connect_header header{};
        header.speed = usb_redir_speed_full;  // of everything behind the machine's hubs
        header.device_class = mode.codes.device_class;
        header.device_subclass = mode.codes.subclass;
        header.device_protocol = mode.codes.protocol;
        header.vendor_id = mode.vid;
        header.product_id = mode.pid;
        header.device_version_bcd = mode.version;
        usbredirparser_send_device_connect(m_parser.get(), &header);
        m_connected = true;
        Tell("came " + *m_mode);
    }

    void SendInterfaces(const Shape::Configuration& configuration) {
        usb_redir_ep_info_header endpoints{};
        std::ranges::fill(endpoints.type, std::uint8_t{usb_redir_type_invalid});
        endpoints.type[0] = endpoints.type[16] = usb_redir_type_control;
        for (const PlacedEndpoint& placed : configuration.endpoints) {
            const unsigned at = (placed.address & 0x80U) >> 3 | (placed.address & 0x0FU);
            endpoints.type[at] = static_cast<std::uint8_t>(placed.endpoint.type);
            endpoints.interval[at] = placed.endpoint.type == EndpointType::kInterrupt ? Shape::kInterval : 0;
            endpoints.interface[at] = placed.interface;
            endpoints.max_packet_size[at] = placed.endpoint.size;
        }
        usbredirparser_send_ep_info(m_parser.get(), &endpoints);

        usb_redir_interface_info_header interfaces{};
        for (const PlacedInterface& placed : configuration.interfaces) {
            const std::uint32_t at = interfaces.interface_count++;
            interfaces.interface[at] = placed.number;
            interfaces.interface_class[at] = placed.interface->codes.device_class;
            interfaces.interface_subclass[at] = placed.interface->codes.subclass;
            interfaces.interface_protocol[at] = placed.interface->codes.protocol;
        }
        usbredirparser_send_interface_info(m_parser.get(), &interfaces);
    }

    void Reset() {
        if (!m_connected) return;
        m_configuration = 0;
        Tell("reset");
    }

    void SetConfiguration(std::uint64_t id, unsigned number) {
        if (!m_connected) return;
        const Shape::Configuration* configuration = shape().configuration(number);
        if (number != 0 && !configuration) return SendConfiguration(id, usb_redir_stall);
        m_configuration = number;
        if (configuration) SendInterfaces(*configuration);
        Tell("configured " + std::to_string(number));
        SendConfiguration(id, usb_redir_success);
    }

    void SendConfiguration(std::uint64_t id, std::uint8_t status) {
        if (!m_connected) return;
        usb_redir_configuration_status_header header{status, static_cast<std::uint8_t>(m_configuration)};
        usbredirparser_send_configuration_status(m_parser.get(), id, &header);
    }

    void SendAltSetting(std::uint64_t id, std::uint8_t interface, std::uint8_t status) {
        if (!m_connected) return;
        usb_redir_alt_setting_status_header header{status, interface, 0};
        usbredirparser_send_alt_setting_status(m_parser.get(), id, &header);
    }

    void SendInterruptStatus(std::uint64_t id, std::uint8_t endpoint) {
        if (!m_connected) return;
        usb_redir_interrupt_receiving_status_header header{usb_redir_success, endpoint};
        usbredirparser_send_interrupt_receiving_status(m_parser.get(), id, &header);
    }

    void Control(std::uint64_t id, const usb_redir_control_packet_header& header, const std::uint8_t* data,
                 std::size_t count) {
        if (!m_connected) return;
        const Setup setup{header.requesttype, header.request, header.value, header.index, header.length};
        if (setup.IsStandard()) return Reply(id, header, shape().Describe(setup, m_configuration));
        const Phone::Reaction reaction = m_phone.React(setup);
        const std::size_t sent =
            setup.IsIn() ? std::min<std::size_t>(reaction.answer.data.size(), setup.length) : 0;
        std::array<char, 32> text;
        std::snprintf(text.data(), text.size(), "transfer %02x %02x %04x %04x ", setup.type, setup.request,
                      setup.value, setup.index);
        Tell(text.data() + Hex(data, setup.IsIn() ? 0 : count) + ' ' + InWords(reaction.answer, sent));
        Reply(id, header, reaction.answer);
        if (reaction.leaves) m_leaves();
    }

    void Reply(std::uint64_t id, usb_redir_control_packet_header header, const Answer& answer) {
        if (answer.kind == Answer::kNever) {
            m_pending.emplace(id, header);
            return;
        }
        const bool is_in = (header.requesttype & 0x80) != 0;
        Bytes data = answer.data;
        data.resize(is_in ? std::min<std::size_t>(data.size(), header.length) : 0);
        header.status = answer.kind == Answer::kStall ? usb_redir_stall : usb_redir_success;
        if (is_in) header.length = static_cast<std::uint16_t>(data.size());
        usbredirparser_send_control_packet(m_parser.get(), id, &header, data.data(),
                                           static_cast<int>(data.size()));
    }

    // Takes everything, gives nothing.
    void Bulk(std::uint64_t id, usb_redir_bulk_packet_header header) {
        if (!m_connected) return;
        if ((header.endpoint & 0x80) != 0) {
            m_pending.emplace(id, header);
            return;
        }
        header.status = usb_redir_success;
        usbredirparser_send_bulk_packet(m_parser.get(), id, &header, nullptr, 0);
    }

    // The machine has given up a transfer; it wants the answer nevertheless.
    void Cancel(std::uint64_t id) {
        const auto found = m_pending.find(id);
        if (found == m_pending.end()) return;
        Pending pending = found->second;
        m_pending.erase(found);
        if (auto* control = std::get_if<usb_redir_control_packet_header>(&pending)) {
            control->status = usb_redir_cancelled;
            control->length = 0;
            usbredirparser_send_control_packet(m_parser.get(), id, control, nullptr, 0);
        } else {
            auto& bulk = std::get<usb_redir_bulk_packet_header>(pending);
            bulk.status = usb_redir_cancelled;
            bulk.length = 0;
            usbredirparser_send_bulk_packet(m_parser.get(), id, &bulk, nullptr, 0);
        }
    }

    int m_socket;
    Phone& m_phone;
    std::function<void()> m_ready, m_leaves;
    Parser m_parser{usbredirparser_create(), usbredirparser_destroy};
    bool m_closed = false;
    bool m_blocked = false;
    bool m_connected = false;       // announced to the machine
    bool m_unacknowledged = false;  // the machine has not yet answered that the phone left
    std::optional<std::string> m_mode;
    unsigned m_configuration = 0;
    std::map<std::uint64_t, Pending> m_pending;  // transfers that get no answer
};

// Power, time and commands.
class Life {
public:
    explicit Life(const Description& description) : m_phone(description) {}

    void Connected(int socket) {
        m_bus.emplace(
            socket, m_phone, [this] { Ready(); }, [this] { LeaveSoon(); });
    }

    Bus* bus() { return m_bus ? &*m_bus : nullptr; }

    void Command(const std::string& line) {
        const std::string verb = line.substr(0, line.find(' '));
        const std::string mode = line.size() > verb.size() ? line.substr(verb.size() + 1) : "";
        if (verb == "cut" && mode.empty())
            Cut();
        else if (verb == "restore" && mode.empty())
            Restore();
        else if (verb == "leave" && mode.empty())
            Move([this] { Leave(); });
        else if (verb == "come" && m_phone.HasMode(mode))
            Move([this, mode] { Come(mode); });
        else
            std::cerr << "headunit_phone: there is no command or no mode: " << line << std::endl;
    }

    // For poll: milliseconds until something has to be done, or -1.
    int Wait() const {
        if (!m_next) return -1;
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(m_next->at - Clock::now());
        return std::max(0, static_cast<int>(wait.count()));
    }

    void DoWhatIsDue() {
        if (!m_next || Clock::now() < m_next->at) return;
        const auto action = std::move(m_next->action);
        m_next.reset();
        action();
    }

private:
    struct Next {
        Clock::time_point at;
        std::function<void()> action;
    };

    void After(unsigned milliseconds, std::function<void()> action) {
        m_next = Next{Clock::now() + std::chrono::milliseconds(milliseconds), std::move(action)};
    }

    void Ready() {
        m_ready = true;
        if (m_powered) Come(m_phone.description().starts);
    }

    void Leave() {
        if (m_bus) m_bus->Leave();
    }

    void Come(const std::string& mode) {
        Leave();
        if (m_ready) m_bus->Come(mode);
    }

    void Move(const std::function<void()>& move) {
        if (!m_powered) return;
        m_next.reset();
        move();
    }

    void LeaveSoon() {
        After(m_phone.description().leaves_after_ms, [this] { Reappear(m_phone.NextReturn()); });
    }

    void Reappear(const Return& how) {
        if (how.kind == Return::kStays) return;
        Leave();
        if (how.kind == Return::kComes) After(how.after_ms, [this, mode = how.mode] { Come(mode); });
    }

    void Cut() {
        if (!m_powered) return;
        m_powered = false;
        m_next.reset();
        Tell("cut");
        Leave();
    }

    void Restore() {
        if (m_powered) return;
        m_powered = true;
        m_phone.Forget();
        Tell("restored");
        Come(m_phone.description().starts);
    }

    Phone m_phone;
    std::optional<Bus> m_bus;
    bool m_ready = false;  // the machine has said hello
    bool m_powered = true;
    std::optional<Next> m_next;
};

int Listen(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) FailWithErrno("socket");
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        FailWithErrno(path.c_str());
    if (listen(listener, 1) != 0) FailWithErrno("listen");
    return listener;
}

// Gives the complete lines that have come on stdin to the phone. False at its end.
bool ReadCommands(std::string& arrived, Life& life) {
    std::array<char, 4096> buffer;
    const ssize_t count = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    arrived.append(buffer.data(), static_cast<std::size_t>(count));
    for (auto end = arrived.find('\n'); end != std::string::npos; end = arrived.find('\n')) {
        const std::string line = arrived.substr(0, end);
        arrived.erase(0, end + 1);
        life.Command(line);
    }
    return true;
}

void Run(const std::string& path, const Description& description) {
    Life life(description);
    Descriptor listener(Listen(path)), connection;
    std::string commands;
    Tell("listening");
    while (true) {
        const bool writes = life.bus() && life.bus()->WantsToWrite();
        std::array polled = {pollfd{STDIN_FILENO, POLLIN, 0},
                             pollfd{connection ? connection.get() : listener.get(), POLLIN, 0}};
        if (writes) polled[1].events |= POLLOUT;
        if (poll(polled.data(), polled.size(), life.Wait()) < 0 && errno != EINTR) FailWithErrno("poll");
        if (polled[0].revents != 0 && !ReadCommands(commands, life)) return;
        if (polled[1].revents != 0 && !connection) {
            connection.Reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!connection) FailWithErrno("accept");
            life.Connected(connection.get());
        } else if (polled[1].revents != 0 && !life.bus()->Read()) {
            return;
        }
        life.DoWhatIsDue();
        if (life.bus() && !life.bus()->Write()) return;
    }
}

}  // namespace headunit

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: headunit_phone SOCKET DESCRIPTION [OVERRIDE...]" << std::endl;
        return 2;
    }
    try {
        std::string overrides;
        for (int at = 3; at < argc; ++at)
            overrides += std::string(argv[at]) + '\n';
        headunit::Run(argv[1], headunit::ReadDescription(argv[2], overrides));
        return 0;
    } catch (const headunit::DescriptionError& error) {
        std::cerr << "headunit_phone: " << error.what() << std::endl;
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "headunit_phone: " << error.what() << std::endl;
        return 1;
    }
}
