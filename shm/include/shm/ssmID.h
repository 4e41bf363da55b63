// The ids of the shared settings records: their places in the record table.
#pragma once

namespace ssmID {

// Anything from SSM_ID_MAX on names no record.
enum e_SsmID : unsigned int {
#define SSM_RECORD(id, name, flag, size) name = id,
#include "shm/records.inc"
#undef SSM_RECORD
};

}  // namespace ssmID
