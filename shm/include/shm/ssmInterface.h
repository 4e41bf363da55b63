// The head unit's shared settings store, as a service uses it: read a record, write it, ask to be told when
// somebody writes it, save it. Any thread, any process; an access waits up to 15 s for another process's.
#pragma once

#include "shm/ssmID.h"

// Negative results are failures; each is printed on standard error where its reason is known, but for a
// record that nobody has written yet. No exception leaves these functions.
class ssmInterface {
public:
    ssmInterface() = delete;

    // Writes the record in memory (never its file: sync_data), making it when missing, and tells the
    // processes that asked. Data behind the record's size is cut off. The number of bytes written; -1: no
    // such id, or not written, and then nobody is told; -2: written, but who is to be told is not known.
    static int write_ssm(ssmID::e_SsmID id, const char* data, unsigned int len);

    // Copies the record, from memory or else from its file, into `buffer`, which must take the record's size:
    // never more is copied. The number of bytes copied, which may be less than the record's size; on -1 (no
    // such id, not readable, not written yet) `buffer` is as it was.
    static int read_ssm(ssmID::e_SsmID id, char* buffer);

    // Adds the receivers (platform sender bits) to those that are told of writes to the record. 0 or -1.
    static int set_notify(ssmID::e_SsmID id, unsigned long receiver);

    // Saves the record in its file; on return it is on the flash. 0 or -1. A memory-only record has no file.
    static int sync_data(ssmID::e_SsmID id);
};
