#include "ListSpy.h"

#include "node/UListNode.h"

namespace test {

ListSpy list;

void SpyNode::ActionAdd(dcm::usb::UEventData* event) {
    added.push_back(event);
    list.calls.push_back("add");
}

void SpyNode::ActionChange(dcm::usb::UEventData* event) {
    changed.push_back(event);
    list.calls.push_back("change");
}

namespace {

std::string Shown(const char* devpath) {
    return devpath ? devpath : "(null)";
}

}  // namespace
}  // namespace test

using dcm::usb::E_SUBSYSTEM;
using dcm::usb::UListNode;
using dcm::usb::UNode;
using dcm::usb::UNotifier;
using test::list;

// The list's operations by the names that the linker knows them by: the object comes first.
extern "C" {

#define INSERT_NODE _ZN3dcm3usb9UListNode10InsertNodeENS0_11E_SUBSYSTEMEPKcPNS0_9UNotifierE
#define FIND_NODE _ZN3dcm3usb9UListNode8FindNodeEPKc
#define REMOVE_NODE _ZN3dcm3usb9UListNode10RemoveNodeEPKc
#define REMOVE_ALL_NODES _ZN3dcm3usb9UListNode14RemoveAllNodesEv
#define JOIN(a, b) a##b
#define REAL(name) JOIN(__real_, name)
#define WRAP(name) JOIN(__wrap_, name)

UNode* REAL(INSERT_NODE)(UListNode* self, E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier);
UNode* REAL(FIND_NODE)(UListNode* self, const char* devpath);
void REAL(REMOVE_NODE)(UListNode* self, const char* devpath);
void REAL(REMOVE_ALL_NODES)(UListNode* self);

UNode* WRAP(INSERT_NODE)(UListNode* self, E_SUBSYSTEM subsystem, const char* devpath, UNotifier* notifier) {
    if (!list.active) return REAL(INSERT_NODE)(self, subsystem, devpath, notifier);
    list.calls.push_back("insert " + std::to_string(subsystem) + " " + test::Shown(devpath));
    list.notifiers.push_back(notifier);
    return list.inserted;
}

UNode* WRAP(FIND_NODE)(UListNode* self, const char* devpath) {
    if (!list.active) return REAL(FIND_NODE)(self, devpath);
    list.calls.push_back("find " + test::Shown(devpath));
    const auto found = devpath ? list.nodes.find(devpath) : list.nodes.end();
    return found == list.nodes.end() ? nullptr : found->second;
}

void WRAP(REMOVE_NODE)(UListNode* self, const char* devpath) {
    if (!list.active) return REAL(REMOVE_NODE)(self, devpath);
    list.calls.push_back("remove " + test::Shown(devpath));
}

void WRAP(REMOVE_ALL_NODES)(UListNode* self) {
    if (!list.active) return REAL(REMOVE_ALL_NODES)(self);
    list.calls.push_back("remove all");
}
}
