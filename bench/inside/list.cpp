// A node's life in the list: made below its parent, found, removed; beside a vector that is walked.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "../Paths.h"
#include "node/UListNode.h"
#include "platform/trace.h"

namespace {

using namespace dcm::usb;

constexpr int kLogThreshold = 160;
constexpr std::size_t kPaths = 128;
constexpr std::size_t kStep = 101;  // has no divisor in common with the numbers of nodes

std::vector<std::string> ComeAndGo(const std::vector<std::string>& tree) {
    std::vector<std::string> paths;
    for (std::size_t at = 0; paths.size() < kPaths; at = (at + kStep) % tree.size())
        paths.push_back(bench::FurtherChild(tree[at]));
    return paths;
}

// Calls `live` with one path after the other.
template <typename Live>
void Run(benchmark::State& state, const std::vector<std::string>& paths, Live live) {
    std::size_t next = 0;
    for (auto _ : state)
        live(paths[next++ % kPaths]);
}

void List(benchmark::State& state) {
    const int old_threshold = ka_log_threshold;
    ka_log_threshold = kLogThreshold;
    UListNode& list = *UListNode::GetInstance();
    const std::vector<std::string> tree = bench::Tree(static_cast<std::size_t>(state.range(0)));
    for (const std::string& path : tree)
        list.InsertNode(SUBSYSTEM_USB, path.c_str(), nullptr);
    Run(state, ComeAndGo(tree), [&list](const std::string& path) {
        list.InsertNode(SUBSYSTEM_USB, path.c_str(), nullptr);
        benchmark::DoNotOptimize(list.FindNode(path.c_str()));
        list.RemoveNode(path.c_str());
    });
    list.RemoveAllNodes();
    ka_log_threshold = old_threshold;
}

// The same promises, each kept by looking at all nodes.
class PlainVector {
public:
    struct Node {
        std::string path;
        Node* parent;
    };

    Node* Find(const std::string& path) {
        for (const std::unique_ptr<Node>& node : m_nodes)
            if (node->path == path) return node.get();
        return nullptr;
    }
    void Insert(const std::string& path) {
        if (Find(path)) return;
        Node* parent = nullptr;
        for (const std::unique_ptr<Node>& node : m_nodes)
            if (path.starts_with(node->path) && (!parent || node->path.starts_with(parent->path)))
                parent = node.get();
        m_nodes.push_back(std::make_unique<Node>(Node{path, parent}));
    }
    void Remove(const std::string& path) {
        const Node* gone = Find(path);
        if (!gone) return;
        std::erase_if(m_nodes, [gone](const std::unique_ptr<Node>& node) { return node->parent == gone; });
        std::erase_if(m_nodes, [gone](const std::unique_ptr<Node>& node) { return node.get() == gone; });
    }

private:
    std::vector<std::unique_ptr<Node>> m_nodes;
};

void Vector(benchmark::State& state) {
    PlainVector list;
    const std::vector<std::string> tree = bench::Tree(static_cast<std::size_t>(state.range(0)));
    for (const std::string& path : tree)
        list.Insert(path);
    Run(state, ComeAndGo(tree), [&list](const std::string& path) {
        list.Insert(path);
        benchmark::DoNotOptimize(list.Find(path));
        list.Remove(path);
    });
}

BENCHMARK(List)->Name("list/insert_find_remove")->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK(Vector)->Name("list/plain_vector")->RangeMultiplier(10)->Range(10, 10000);

}  // namespace
