// Another process of the head unit that shares the settings store, for the service's tests.
//   store_tool read ID          prints the record's bytes in hex
//   store_tool write ID HEX     as a service writes it
//   store_tool hold NAME        takes the record's semaphore and dies holding it
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "shm/Semaphore.h"
#include "shm/ssmInterface.h"

namespace {

int Read(ssmID::e_SsmID id) {
    std::vector<char> data(4096);
    const int length = ssmInterface::read_ssm(id, data.data());
    if (length < 0) return 1;
    for (int i = 0; i < length; ++i)
        std::printf("%02x", static_cast<unsigned char>(data[static_cast<std::size_t>(i)]));
    std::printf("\n");
    return 0;
}

int Write(ssmID::e_SsmID id, const std::string& hex) {
    std::vector<char> data;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2)
        data.push_back(static_cast<char>(std::strtoul(hex.substr(at, 2).c_str(), nullptr, 16)));
    return ssmInterface::write_ssm(id, data.data(), static_cast<unsigned int>(data.size())) < 0 ? 1 : 0;
}

int Die(const char* name) {
    shm::Semaphore semaphore(name);
    std::_Exit(semaphore.Wait() ? 0 : 1);
}

}  // namespace

int main(int count, char** words) {
    const std::string what = count > 2 ? words[1] : "";
    const auto id = static_cast<ssmID::e_SsmID>(count > 2 ? std::strtoul(words[2], nullptr, 10) : 0);
    if (what == "read") return Read(id);
    if (what == "write" && count > 3) return Write(id, words[3]);
    if (what == "hold") return Die(words[2]);
    std::fprintf(stderr, "usage: %s read ID | write ID HEX | hold NAME\n", words[0]);
    return 2;
}
