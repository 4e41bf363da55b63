// Stands before the list of nodes: writes down what the event sources ask of it, and lets a test decide what
// it holds. While not active, all goes to the real list.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "node/UNode.h"

namespace test {

// A node that writes down what it is told.
struct SpyNode : dcm::usb::UNode {
    explicit SpyNode(const char* devpath) : UNode(dcm::usb::SUBSYSTEM_USB, devpath, nullptr) {}
    void ActionAdd(dcm::usb::UEventData* event) override;
    void ActionChange(dcm::usb::UEventData* event) override;

    std::vector<dcm::usb::UEventData*> added;
    std::vector<dcm::usb::UEventData*> changed;
};

struct ListSpy {
    bool active = false;
    std::map<std::string, dcm::usb::UNode*> nodes;  // what FindNode finds; not owned
    dcm::usb::UNode* inserted = nullptr;            // what InsertNode answers; not owned

    std::vector<std::string> calls;
    std::vector<dcm::usb::UNotifier*> notifiers;  // given to InsertNode
};

extern ListSpy list;

}  // namespace test
