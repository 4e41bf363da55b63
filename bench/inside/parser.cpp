// A uevent into its record, beside a walk that compares every key at every place.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "../Paths.h"
#include "event/UNetLinkData.h"

namespace {

using dcm::usb::UEventData;
using Values = std::array<const char*, dcm::usb::kUeventKeys>;

constexpr std::size_t kZerosBehind = 16;  // a key may reach over the end of a message

Values Walk(const char* buf, int len) {
    Values values = {};
    for (int at = 0; at < len; ++at) {
        if (buf[at] == '\0') continue;
        for (std::size_t key = 0; key < values.size(); ++key) {
            const char* text = UEventData::kStringID[key];
            const std::size_t length = std::strlen(text);
            if (std::strncmp(buf + at, text, length) == 0) values[key] = buf + at + length;
        }
    }
    return values;
}

// What a unit with a stick and a phone hears.
std::vector<std::string> Mix() {
    const std::string device = bench::kHub + "/1-1.2";
    const std::string interface = device + "/1-1.2:1.0";
    const std::string disk = interface + "/host0/target0:0:0/0:0:0:0/block/sda";
    return {
        bench::TypicalUevent(),
        bench::Uevent("add", interface,
                      "SUBSYSTEM=usb|DEVTYPE=usb_interface|PRODUCT=781/5581/100|TYPE=0/0/0|INTERFACE=8/6/80|"
                      "MODALIAS=usb:v0781p5581d0100dc00dsc00dp00ic08isc06ip50in00"),
        bench::Uevent("bind", interface, "SUBSYSTEM=usb|DEVTYPE=usb_interface|DRIVER=usb-storage"),
        bench::Uevent("add", disk, "SUBSYSTEM=block|MAJOR=8|MINOR=0|DEVNAME=sda|DEVTYPE=disk|DISKSEQ=5"),
        bench::Uevent("add", disk + "/sda1",
                      "SUBSYSTEM=block|MAJOR=8|MINOR=1|DEVNAME=sda1|DEVTYPE=partition|DISKSEQ=5|PARTN=1"),
        bench::ForeignUevent("change"),
        bench::ForeignUevent("add"),
        bench::Uevent("remove", device, "SUBSYSTEM=usb|DEVTYPE=usb_device|PRODUCT=781/5581/100"),
    };
}

template <typename Parse>
void Run(benchmark::State& state, std::vector<std::string> messages, Parse parse) {
    for (std::string& message : messages)
        message.append(kZerosBehind, '\0');
    std::size_t next = 0;
    for (auto _ : state) {
        std::string& message = messages[next];
        parse(message.data(), static_cast<int>(message.size() - kZerosBehind));
        next = next + 1 == messages.size() ? 0 : next + 1;
    }
}

void Parser(benchmark::State& state, const std::vector<std::string>& messages) {
    dcm::usb::UNetLinkData data;
    Run(state, messages, [&data](char* buf, int len) {
        data.ParseData(buf, len);
        benchmark::DoNotOptimize(&data);
        benchmark::ClobberMemory();
    });
}

void PlainWalk(benchmark::State& state, const std::vector<std::string>& messages) {
    Run(state, messages, [](char* buf, int len) { benchmark::DoNotOptimize(Walk(buf, len)); });
}

BENCHMARK_CAPTURE(Parser, typical, {bench::TypicalUevent()})->Name("parser/typical");
BENCHMARK_CAPTURE(PlainWalk, typical, {bench::TypicalUevent()})->Name("parser/plain_walk/typical");
BENCHMARK_CAPTURE(Parser, mix, Mix())->Name("parser/mix");
BENCHMARK_CAPTURE(PlainWalk, mix, Mix())->Name("parser/plain_walk/mix");

}  // namespace
