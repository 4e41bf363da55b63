#include "support/MemoryStore.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "setting/USetting.h"
#include "shm/MemoryData.h"
#include "shm/ssmInterface.h"

namespace test {
namespace {

struct Store {
    std::mutex mutex;
    std::map<unsigned, Bytes> records;
    std::map<unsigned, Bytes> persistent;
    std::map<unsigned, unsigned long> receivers;
    std::map<std::pair<E_STORE_CALL, unsigned>, int> failures;
    std::vector<StoreCall> calls;

    // Lists the call; the result that a test wants instead of its deed, if any.
    std::optional<int> Enter(StoreCall call) {
        const auto failure = failures.find({call.call, call.id});
        calls.push_back(std::move(call));
        if (failure == failures.end()) return std::nullopt;
        return failure->second;
    }
};

Store& TheStore() {
    static Store* store = new Store;  // never destroyed: a late thread may still read a setting
    return *store;
}

template <typename Map>
std::optional<Bytes> Find(const Map& map, unsigned id) {
    const auto found = map.find(id);
    if (found == map.end()) return std::nullopt;
    return found->second;
}

}  // namespace

void ResetStore() {
    dcm::usb::USetting::Release();
    Store& store = TheStore();
    std::lock_guard lock(store.mutex);
    store.records.clear();
    store.persistent.clear();
    store.receivers.clear();
    store.failures.clear();
    store.calls.clear();
}

void SetRecord(unsigned id, Bytes bytes) {
    std::lock_guard lock(TheStore().mutex);
    TheStore().records[id] = std::move(bytes);
}

void RemoveRecord(unsigned id) {
    std::lock_guard lock(TheStore().mutex);
    TheStore().records.erase(id);
}

void FailStore(E_STORE_CALL call, unsigned id, int result) {
    std::lock_guard lock(TheStore().mutex);
    TheStore().failures[{call, id}] = result;
}

std::vector<StoreCall> StoreCalls() {
    std::lock_guard lock(TheStore().mutex);
    return TheStore().calls;
}

void ClearStoreCalls() {
    std::lock_guard lock(TheStore().mutex);
    TheStore().calls.clear();
}

std::optional<Bytes> Record(unsigned id) {
    std::lock_guard lock(TheStore().mutex);
    return Find(TheStore().records, id);
}

std::optional<Bytes> PersistentRecord(unsigned id) {
    std::lock_guard lock(TheStore().mutex);
    return Find(TheStore().persistent, id);
}

unsigned long Receivers(unsigned id) {
    std::lock_guard lock(TheStore().mutex);
    const auto found = TheStore().receivers.find(id);
    return found == TheStore().receivers.end() ? 0 : found->second;
}

}  // namespace test

using test::TheStore;

int ssmInterface::write_ssm(ssmID::e_SsmID id, const char* data, unsigned int len) {
    std::lock_guard lock(TheStore().mutex);
    const auto* begin = reinterpret_cast<const std::uint8_t*>(data);
    test::Bytes bytes(begin, begin + len);
    if (const auto failed = TheStore().Enter({test::STORE_WRITE, static_cast<unsigned>(id), bytes}))
        return *failed;
    TheStore().records[id] = std::move(bytes);
    return static_cast<int>(len);
}

int ssmInterface::read_ssm(ssmID::e_SsmID id, char* buffer) {
    std::lock_guard lock(TheStore().mutex);
    if (const auto failed = TheStore().Enter({test::STORE_READ, static_cast<unsigned>(id)})) return *failed;
    const auto bytes = test::Find(TheStore().records, id);
    if (!bytes) return -1;
    const std::size_t count = std::min<std::size_t>(bytes->size(), shm::get_table()[id].size);
    std::copy_n(bytes->begin(), count, buffer);
    return static_cast<int>(count);
}

int ssmInterface::set_notify(ssmID::e_SsmID id, unsigned long receiver) {
    std::lock_guard lock(TheStore().mutex);
    const test::StoreCall call{test::STORE_SET_NOTIFY, static_cast<unsigned>(id), {}, receiver};
    if (const auto failed = TheStore().Enter(call)) return *failed;
    TheStore().receivers[id] |= receiver;
    return 0;
}

int ssmInterface::sync_data(ssmID::e_SsmID id) {
    std::lock_guard lock(TheStore().mutex);
    if (const auto failed = TheStore().Enter({test::STORE_SYNC, static_cast<unsigned>(id)})) return *failed;
    const auto bytes = test::Find(TheStore().records, id);
    if (!bytes) return -1;
    TheStore().persistent[id] = *bytes;
    return 0;
}
