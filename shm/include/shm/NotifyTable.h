// Who is to be told of writes to which record: a table that all processes share. Any thread.
#pragma once

#include "shm/Layout.h"
#include "shm/Memory.h"

namespace shm {

class NotifyTable : public Memory<NotifyMask> {
public:
    NotifyTable();

    // Adds receivers to the record's mask, making the table when missing. 0 or -1.
    int Write(ssmID::e_SsmID id, NotifyMask receivers);

    // The record's mask: 0 as long as nobody has asked for anything. 0 or -1.
    int Read(ssmID::e_SsmID id, NotifyMask* receivers);
};

}  // namespace shm
