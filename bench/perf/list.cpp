// Inserts a node, finds it and removes it, while `nodes` others are in the list:
//   perf_list usb|net NODES
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../Paths.h"
#include "Measured.h"
#include "node/UListNode.h"
#include "platform/trace.h"

namespace {

using namespace dcm::usb;

constexpr int kLogThreshold = 160;

UListNode* list;
E_SUBSYSTEM subsystem;
std::vector<std::string> come_and_go;

void InsertFindRemove(long number) {
    const char* path = come_and_go[static_cast<std::size_t>(number) % come_and_go.size()].c_str();
    if (list->InsertNode(subsystem, path, nullptr) != list->FindNode(path)) std::abort();
    list->RemoveNode(path);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) return EXIT_FAILURE;
    subsystem = std::strcmp(arguments[1], "usb") == 0 ? SUBSYSTEM_USB : SUBSYSTEM_NET;
    const std::size_t nodes = std::strtoul(arguments[2], nullptr, 10);
    ka_log_threshold = kLogThreshold;
    list = UListNode::GetInstance();
    for (const std::string& path : bench::Tree(nodes, 1))
        list->InsertNode(subsystem, path.c_str(), nullptr);
    // Without the first, of which all others would be children.
    come_and_go = bench::Tree(101, 2);
    come_and_go.erase(come_and_go.begin());
    bench::WarmUpAndMeasure(InsertFindRemove, 1000);
    return list->GetSize() == nodes ? EXIT_SUCCESS : EXIT_FAILURE;
}
