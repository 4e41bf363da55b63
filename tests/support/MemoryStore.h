// A shared settings store that lives in this process's memory and writes down who did what with it. It is
// linked in place of the real one, so that no unit test touches /dev/shm or /data. Any thread.
#pragma once

#include <optional>
#include <ostream>
#include <vector>

#include "support/RecordingPlatform.h"

namespace test {

enum E_STORE_CALL { STORE_READ, STORE_WRITE, STORE_SET_NOTIFY, STORE_SYNC };

struct StoreCall {
    E_STORE_CALL call;
    unsigned id;                 // row of the record table
    Bytes bytes = {};            // STORE_WRITE: what was written
    unsigned long receiver = 0;  // STORE_SET_NOTIFY: who is to be told

    bool operator==(const StoreCall&) const = default;
    friend void PrintTo(const StoreCall& call, std::ostream* out) {
        static const char* const kNames[] = {"read", "write", "set_notify", "sync"};
        *out << kNames[call.call] << "(" << call.id << ", " << call.bytes.size() << " bytes, receiver "
             << call.receiver << ")";
    }
};

// Forgets records, calls and failures, and releases USetting, so that the next GetInstance reads this store.
// A fixture calls it before it makes a notifier.
void ResetStore();

// The record as another service wrote it: not listed among the calls.
void SetRecord(unsigned id, Bytes bytes);
void RemoveRecord(unsigned id);

// From now on the call fails for the record, before it changes anything, until the next reset.
void FailStore(E_STORE_CALL call, unsigned id, int result = -1);

std::vector<StoreCall> StoreCalls();  // since the reset, or the last ClearStoreCalls
void ClearStoreCalls();
std::optional<Bytes> Record(unsigned id);            // what a reader would get now
std::optional<Bytes> PersistentRecord(unsigned id);  // what the last sync_data kept
unsigned long Receivers(unsigned id);                // everybody who asked to be told of writes

}  // namespace test
