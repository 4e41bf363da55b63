// Plays another process of the unit that uses the shared settings, such as the engineering menu.
//
//   settings write <record> <number>...   writes a record of 32-bit numbers and tells who asked to be told
//   settings read <record>                prints its numbers
//   settings request <command> <receivers> <length> <size> <text>
//       asks /dev/css itself, with these fields whatever they say, and prints 0 or the error's name; instead
//       of a text "nowhere" gives an address where nothing is
//
// Numbers as in C. Ends with 0, with 1 when the record is not written or not there, with 2 when it was called
// wrongly.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "shm/Layout.h"
#include "shm/ssmInterface.h"

namespace {

constexpr std::size_t kNumbersMost = 4;
constexpr std::size_t kBufferBytes = 64 * 1024;

struct Record {
    ssmID::e_SsmID id;
    std::size_t numbers;
};

std::optional<Record> Find(const std::string& name) {
    if (name == "shm_usb_cert") return Record{ssmID::shm_usb_cert, 4};
    if (name == "shm_usb_cert_persist") return Record{ssmID::shm_usb_cert_persist, 1};
    return std::nullopt;
}

std::uint64_t Number(const char* text) {
    return std::strtoull(text, nullptr, 0);
}

int Write(const Record& record, char** words) {
    std::uint32_t numbers[kNumbersMost];
    for (std::size_t i = 0; i < record.numbers; ++i)
        numbers[i] = static_cast<std::uint32_t>(Number(words[i]));
    const auto bytes = static_cast<unsigned int>(record.numbers * sizeof numbers[0]);
    return ssmInterface::write_ssm(record.id, reinterpret_cast<const char*>(numbers), bytes) < 0 ? 1 : 0;
}

int Read(const Record& record) {
    std::uint32_t numbers[kNumbersMost] = {};
    if (ssmInterface::read_ssm(record.id, reinterpret_cast<char*>(numbers)) < 0) return 1;
    for (std::size_t i = 0; i < record.numbers; ++i)
        std::printf("%s%u", i > 0 ? " " : "", numbers[i]);
    std::printf("\n");
    return 0;
}

int Request(char** words) {
    std::vector<char> buffer(kBufferBytes);
    const std::string text = words[4];
    std::copy_n(text.data(), std::min(text.size(), buffer.size()), buffer.data());
    shm::CssRequest request{};
    request.receivers = Number(words[1]);
    request.length = static_cast<std::uint32_t>(Number(words[2]));
    request.size = static_cast<std::uint32_t>(Number(words[3]));
    request.buffer = text == "nowhere" ? reinterpret_cast<const char*>(1) : buffer.data();
    const int driver = open("/dev/css", O_WRONLY | O_CLOEXEC);
    const int result = driver < 0 ? -1 : ioctl(driver, Number(words[0]), &request);
    std::printf("%s\n", result < 0 ? strerrorname_np(errno) : std::to_string(result).c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "request" && argc == 7) return Request(argv + 2);
    const std::optional<Record> record = argc > 2 ? Find(argv[2]) : std::nullopt;
    if (record && verb == "read" && argc == 3) return Read(*record);
    if (record && verb == "write" && argc == 3 + static_cast<int>(record->numbers))
        return Write(*record, argv + 3);
    std::fprintf(stderr,
                 "usage: settings write record number... | read record | "
                 "request command receivers length size text\n");
    return 2;
}
