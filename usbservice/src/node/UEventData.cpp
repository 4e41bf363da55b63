#include "node/UEventData.h"

namespace dcm::usb {

const char* const UEventData::kStringAction[5] = {"none", "add", "remove", "change", "online"};

const char* const UEventData::kStringSubsystem[23] = {
    "none",     "mmc",    "usb",  "block",   "scsi",       "scsi_host",    "scsi_disk", "scsi_device",
    "bdi",      "module", "misc", "drivers", "bus",        "class",        "system",    "mxsdhci",
    "mmc_host", "sound",  "hid",  "tty",     "usb_device", "scsi_generic", "net"};

const char* const UEventData::kStringUsbDevType[3] = {"none", "usb_device", "usb_interface"};
const char* const UEventData::kStringBlockDevType[3] = {"none", "disk", "partition"};
const char* const UEventData::kStringCustomEvent[2] = {"none", "overcurrent"};
const char* const UEventData::kStringEnumerate[2] = {"none", "FAIL"};

}  // namespace dcm::usb
