#include "shm/ssmInterface.h"

#include <array>
#include <exception>
#include <mutex>
#include <new>

#include "shm/Complaint.h"
#include "shm/Layout.h"
#include "shm/LowSend.h"
#include "shm/MemoryData.h"
#include "shm/NotifyTable.h"
#include "shm/PersistenceInterface.h"

namespace {

// Guards the two tables of objects below, never an access: one that waits for a dead process holds up nobody
// but those who want the same record.
std::mutex s_objects;

// The record's access object, made on first use and kept for the life of the process; null without memory.
shm::PersistenceInterface* get_record(ssmID::e_SsmID id, const shm::MemoryData& row) {
    static std::array<shm::PersistenceInterface*, ssmID::SSM_ID_MAX> records{};
    std::lock_guard lock(s_objects);
    if (!records[id]) {
        records[id] = new (std::nothrow) shm::PersistenceInterface(row);
        if (!records[id]) shm::Complain(__func__, "alloc fail %s", row.name);
    }
    return records[id];
}

// Likewise.
shm::NotifyTable* get_notify_table() {
    static shm::NotifyTable* table = nullptr;
    std::lock_guard lock(s_objects);
    if (!table) {
        table = new (std::nothrow) shm::NotifyTable;
        if (!table) shm::Complain(__func__, "alloc fail %s", "NotifyTable");
    }
    return table;
}

// The row's access object; null, and a line, when there is no such record.
shm::PersistenceInterface* FindRecord(const char* function, ssmID::e_SsmID id) {
    const shm::MemoryData* row = shm::get_table_index(id);
    if (!row) {
        shm::Complain(function, "get_ssm_table_index error");
        return nullptr;
    }
    return get_record(id, *row);
}

// The store's users have no exceptions: what is thrown below (no memory) ends here as a failure.
template <typename Operation>
int Guarded(const char* function, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        shm::Complain(function, "%s", error.what());
    } catch (...) {
        shm::Complain(function, "unknown exception");
    }
    return -1;
}

}  // namespace

int ssmInterface::write_ssm(ssmID::e_SsmID id, const char* data, unsigned int len) {
    return Guarded("write_ssm", [&] {
        shm::PersistenceInterface* record = FindRecord("write_ssm", id);
        if (!record) return -1;
        const int written = record->Write(data, len, shm::WRITE_MEMORY);
        if (written < 0) return written;
        shm::NotifyTable* table = get_notify_table();
        shm::NotifyMask receivers = 0;
        if (!table || table->Read(id, &receivers) < 0) {
            shm::Complain("write_ssm", "notify table error");
            return -2;
        }
        if (receivers != 0) shm::low_send(id, receivers);
        return written;
    });
}

int ssmInterface::read_ssm(ssmID::e_SsmID id, char* buffer) {
    return Guarded("read_ssm", [&] {
        shm::PersistenceInterface* record = FindRecord("read_ssm", id);
        return record ? record->Read(buffer) : -1;
    });
}

int ssmInterface::set_notify(ssmID::e_SsmID id, unsigned long receiver) {
    return Guarded("set_notify", [&] {
        if (!shm::get_table_index(id)) {
            shm::Complain("set_notify", "get_ssm_table_index error");
            return -1;
        }
        shm::NotifyTable* table = get_notify_table();
        if (table && table->Write(id, receiver) == 0) return 0;
        shm::Complain("set_notify", "notify table error");
        return -1;
    });
}

int ssmInterface::sync_data(ssmID::e_SsmID id) {
    return Guarded("sync_data", [&] {
        shm::PersistenceInterface* record = FindRecord("sync_data", id);
        return record ? record->Sync() : -1;
    });
}
