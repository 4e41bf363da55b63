// Inserts a child of one of the list's nodes, finds it and removes it, while NODES others are in the list:
//   perf_list usb|net NODES [aged]
// aged: nodes with paths between the parent's and the child's came and went before.
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
constexpr std::size_t kPaths = 128;
constexpr std::size_t kStep = 101;  // has no divisor in common with the numbers of nodes

UListNode* list;
E_SUBSYSTEM subsystem;
std::vector<std::string> come_and_go;

void InsertFindRemove(long number) {
    const char* path = come_and_go[static_cast<std::size_t>(number) % kPaths].c_str();
    if (list->InsertNode(subsystem, path, nullptr) != list->FindNode(path)) std::abort();
    list->RemoveNode(path);
}

// Each prefix of the paths that is longer than the parent.
void Age() {
    for (const std::string& path : come_and_go) {
        const std::size_t parent = path.rfind('/', path.rfind(':'));
        for (std::size_t length = parent; length < path.size(); ++length) {
            const std::string prefix = path.substr(0, length);
            if (list->FindNode(prefix.c_str())) continue;
            list->InsertNode(subsystem, prefix.c_str(), nullptr);
            list->RemoveNode(prefix.c_str());
        }
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3 && !(count == 4 && std::strcmp(arguments[3], "aged") == 0)) return EXIT_FAILURE;
    subsystem = std::strcmp(arguments[1], "usb") == 0 ? SUBSYSTEM_USB : SUBSYSTEM_NET;
    const std::size_t nodes = std::strtoul(arguments[2], nullptr, 10);
    ka_log_threshold = kLogThreshold;
    list = UListNode::GetInstance();
    const std::vector<std::string> tree = bench::Tree(nodes);
    for (const std::string& path : tree)
        list->InsertNode(subsystem, path.c_str(), nullptr);
    for (std::size_t at = 0; come_and_go.size() < kPaths; at = (at + kStep) % nodes)
        come_and_go.push_back(bench::FurtherChild(tree[at]));
    if (count == 4) Age();
    bench::WarmUpAndMeasure(InsertFindRemove);
    return list->GetSize() == nodes ? EXIT_SUCCESS : EXIT_FAILURE;
}
