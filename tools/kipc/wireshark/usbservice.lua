-- Wireshark: what the USB service sent and received, from a capture that kipcmon wrote (link type USER0).
--
--     wireshark -X lua_script:usbservice.lua capture.pcapng      or copy this file into the folder of Lua plugins
--     tshark -X lua_script:usbservice.lua -r capture.pcapng -Y 'usbservice.receiver == "media"'
--
-- Filters: usbservice.sender, .receiver, .direction, .outcome, .lost, .record, .id, .port, .fault, and each field of
-- each record as usbservice.RECORD.FIELD.

-- What the records mean.
-- begin of the description
-- Generated from tools/records/records.toml by tools/records/generate.py; do not edit.
local WORDS = {
    cmd = {
        [2] = "attach",
        [3] = "mounted",
        [5] = "detach",
        [6] = "error",
        [8] = "search phone",
        [19] = "voltage section",
    },
    sub_cmd = {
        [0] = "-",
        [1] = "unsupported device",
        [2] = "unknown filesystem",
        [6] = "invalid filesystem",
        [7] = "customer hub",
        [8] = "over-current",
        [9] = "mount failed",
        [10] = "mount busy",
    },
    dev_type = {
        [0] = "none",
        [1] = "unsupported",
        [2] = "hub",
        [3] = "CD drive",
        [4] = "SD",
        [5] = "storage",
        [6] = "Apple",
        [8] = "Apple shuttle",
        [9] = "phone",
        [10] = "MTP",
        [12] = "input",
        [13] = "any",
    },
    speed = {
        [0] = "low",
        [1] = "full",
        [2] = "high",
        [255] = "unknown",
    },
    sender = {
        [0] = "command",
        [1] = "search",
        [3] = "event",
        [4] = "item",
    },
    capability = {
        [0] = "unknown",
        [1] = "supported",
        [2] = "not supported",
        [3] = "accessory mode",
    },
    result = {
        [0] = "done",
        [1] = "failed",
    },
    section = {
        [1] = "non-critical",
        [2] = "critical",
        [3] = "non-critical 2.1 A",
        [4] = "initial",
    },
    diag_service = {
        [34] = "data by identifier",
        [25] = "fault",
        [49] = "routine",
    },
    no_yes = {
        [0] = "no",
        [1] = "yes",
    },
    good_bad = {
        [1] = "good",
        [2] = "bad",
    },
    communication = {
        [0] = "ok",
        [1] = "faulty",
    },
    off_on = {
        [0] = "off",
        [255] = "on",
    },
    power_kind = {
        [1] = "power",
        [3] = "terminal",
    },
    trigger = {
        [0] = "sdcm",
        [1] = "media",
    },
    id = {
        [1] = "device attached",
        [2] = "device detached",
        [3] = "scan begin",
        [4] = "scan end",
        [5] = "result of Android Auto",
        [6] = "result of MirrorLink",
        [7] = "result of CarPlay",
        [8] = "result of CarLife on Android",
        [9] = "result of CarLife on iPhone",
        [10] = "result of reset",
        [12] = "request Android Auto",
        [13] = "request MirrorLink",
        [14] = "request CarPlay",
        [15] = "request CarLife on Android",
        [16] = "request CarLife on iPhone",
        [17] = "request reset",
        [18] = "search",
        [20] = "usb add",
        [21] = "usb remove",
        [22] = "hid add",
        [23] = "hid remove",
        [24] = "tty add",
        [25] = "tty remove",
        [26] = "tty change",
        [27] = "usb scan begin",
        [28] = "usb scan end",
        [29] = "remove usb",
        [30] = "reset hub",
        [31] = "mount error add",
        [32] = "mount error delete",
        [33] = "over-current add",
        [34] = "over-current delete",
        [35] = "voltage add",
        [36] = "voltage delete",
        [37] = "cutting add",
        [38] = "cutting delete",
        [39] = "change timeout add",
        [40] = "change timeout delete",
        [41] = "CarPlay timeout add",
        [42] = "CarPlay timeout delete",
        [43] = "CarPlay capability add",
        [44] = "CarPlay capability delete",
        [45] = "change timeout",
        [46] = "CarPlay timeout",
        [47] = "CarPlay capability",
    },
}
local RECORDS = {
    { name = "st_usb_pkt", size = 360, minimum = 360, longer = false, from = "usb",
      to = {
          "media",
          "speech",
      },
      fields = {
        { name = "kind", at = 0, width = 4, kind = "u32", is = "03000000" },
        { name = "cmd", at = 4, width = 4, kind = "u32", words = "cmd" },
        { name = "sub_cmd", at = 8, width = 4, kind = "u32", words = "sub_cmd" },
        { name = "dev_type", at = 12, width = 4, kind = "u32", words = "dev_type" },
        { name = "port", at = 16, width = 4, kind = "u32" },
        { name = "vid", at = 20, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 22, width = 2, kind = "u16", hex = true },
        { name = "support", at = 24, width = 12, kind = "bytes", unused = true },
        { name = "serial", at = 36, width = 64, kind = "text" },
        { name = "product", at = 100, width = 64, kind = "text" },
        { name = "manufacturer", at = 164, width = 64, kind = "text" },
        { name = "devpath", at = 228, width = 128, kind = "text" },
        { name = "usb_class", at = 356, width = 1, kind = "u8", hex = true },
        { name = "speed", at = 357, width = 1, kind = "u8", words = "speed" },
        { name = "unused", at = 358, width = 2, kind = "bytes", unused = true },
    } },
    { name = "st_storage_pkt", size = 136, minimum = 136, longer = false, from = "usb",
      to = {
          "media",
          "navi",
          "speech",
          "0000000000004000",
          "0000000000200000",
          "0000000800000000",
          "0000020000000000",
          "0000080000000000",
          "0000200000000000",
      },
      fields = {
        { name = "kind", at = 0, width = 4, kind = "u32", is = "03000000" },
        { name = "cmd", at = 4, width = 4, kind = "u32", words = "cmd" },
        { name = "sub_cmd", at = 8, width = 4, kind = "u32", words = "sub_cmd" },
        { name = "dev_type", at = 12, width = 4, kind = "u32", words = "dev_type" },
        { name = "port", at = 16, width = 4, kind = "u32" },
        { name = "partition", at = 20, width = 1, kind = "u8" },
        { name = "mount_path", at = 21, width = 32, kind = "text" },
        { name = "label", at = 53, width = 32, kind = "text" },
        { name = "uuid", at = 85, width = 32, kind = "text" },
        { name = "fs_type", at = 117, width = 16, kind = "text" },
        { name = "usb_class", at = 133, width = 1, kind = "u8", hex = true },
        { name = "speed", at = 134, width = 1, kind = "u8", words = "speed" },
        { name = "unused", at = 135, width = 1, kind = "bytes", unused = true },
    } },
    { name = "media_voltage", size = 24, minimum = 24, longer = false, from = "usb",
      to = {
          "media",
      },
      fields = {
        { name = "kind", at = 0, width = 4, kind = "u32", is = "00000000" },
        { name = "cmd", at = 4, width = 4, kind = "u32", words = "cmd", is = "13000000" },
        { name = "sub_cmd", at = 8, width = 4, kind = "u32", words = "sub_cmd", is = "00000000" },
        { name = "dev_type", at = 12, width = 4, kind = "u32", words = "dev_type", is = "06000000" },
        { name = "port", at = 16, width = 4, kind = "u32" },
        { name = "section", at = 20, width = 4, kind = "u32", words = "section" },
    } },
    { name = "voltage", size = 12, minimum = 12, longer = false, from = "usb",
      to = {
          "voltage",
      },
      fields = {
        { name = "kind", at = 0, width = 4, kind = "u32", is = "88130000" },
        { name = "port", at = 4, width = 4, kind = "u32" },
        { name = "section", at = 8, width = 4, kind = "u32", words = "section" },
    } },
    { name = "diag_external_optical_status", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "01602251ec" },
        { name = "status", at = 5, width = 1, kind = "u8", hex = true },
    } },
    { name = "diag_external_optical_error_code", size = 8, minimum = 8, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160221005" },
        { name = "status", at = 5, width = 3, kind = "bytes" },
    } },
    { name = "diag_status_communication", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "01602218e8" },
        { name = "status", at = 5, width = 1, kind = "u8", words = "communication" },
    } },
    { name = "diag_device_state", size = 16, minimum = 16, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016022185d" },
        { name = "power", at = 5, width = 1, kind = "u8" },
        { name = "speed", at = 6, width = 1, kind = "u8", words = "speed" },
        { name = "usb_class", at = 7, width = 1, kind = "u8", hex = true },
        { name = "sub_class", at = 8, width = 1, kind = "u8", hex = true },
        { name = "protocol", at = 9, width = 1, kind = "u8", hex = true },
        { name = "vid", at = 10, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 12, width = 2, kind = "u16", hex = true },
        { name = "connected", at = 14, width = 1, kind = "u8", words = "no_yes" },
        { name = "unused", at = 15, width = 1, kind = "u8", is = "ff" },
    } },
    { name = "diag_over_current", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016022247c" },
        { name = "present", at = 5, width = 1, kind = "u8", words = "off_on" },
    } },
    { name = "diag_faulty_communication", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160190665" },
        { name = "result", at = 5, width = 1, kind = "u8", words = "communication" },
    } },
    { name = "diag_socket1_open", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160190666" },
        { name = "open", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket1_short", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160190667" },
        { name = "short", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket2_open", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160190668" },
        { name = "open", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket2_short", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "0160190669" },
        { name = "short", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket3_open", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016019066a" },
        { name = "open", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket3_short", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016019066b" },
        { name = "short", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket4_open", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016019066c" },
        { name = "open", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_socket4_short", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "016019066d" },
        { name = "short", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "diag_test_result", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "01603180aa" },
        { name = "result", at = 5, width = 1, kind = "u8", words = "good_bad" },
    } },
    { name = "diag_hub_support", size = 6, minimum = 6, longer = false, from = "usb",
      to = {
          "diag",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "01602280aa" },
        { name = "not_supported", at = 5, width = 1, kind = "u8", words = "no_yes" },
    } },
    { name = "mount_check_result", size = 36, minimum = 36, longer = false, from = "usb",
      to = {
          "test",
      },
      fields = {
        { name = "head", at = 0, width = 3, kind = "bytes", is = "823101" },
        { name = "mounted", at = 3, width = 1, kind = "u8", words = "no_yes" },
        { name = "mount_path", at = 4, width = 32, kind = "text" },
    } },
    { name = "scan", size = 12, minimum = 12, longer = false, from = "usb",
      to = {
          "sdcm",
      },
      fields = {
        { name = "sender", at = 0, width = 4, kind = "u32", words = "sender", is = "00000000" },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "unused", at = 8, width = 4, kind = "u32", is = "00000000" },
    } },
    { name = "device_event", size = 364, minimum = 364, longer = false, from = "usb",
      to = {
          "sdcm",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender", is = "00" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 4, kind = "u32" },
        { name = "dev_type", at = 12, width = 4, kind = "u32", words = "dev_type" },
        { name = "vid", at = 16, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 18, width = 2, kind = "u16", hex = true },
        { name = "usb_class", at = 20, width = 1, kind = "u8", hex = true },
        { name = "unused2", at = 21, width = 3, kind = "bytes", any = true },
        { name = "speed", at = 24, width = 4, kind = "u32", words = "speed" },
        { name = "aa_capa", at = 28, width = 4, kind = "u32", words = "capability" },
        { name = "ml_capa", at = 32, width = 4, kind = "u32", words = "capability" },
        { name = "cp_capa", at = 36, width = 4, kind = "u32", words = "capability" },
        { name = "cl_capa", at = 40, width = 4, kind = "u32", words = "capability" },
        { name = "serial", at = 44, width = 64, kind = "text" },
        { name = "product", at = 108, width = 64, kind = "text" },
        { name = "manufacturer", at = 172, width = 64, kind = "text" },
        { name = "devpath", at = 236, width = 128, kind = "text" },
    } },
    { name = "mode_result", size = 244, minimum = 244, longer = false, from = "usb",
      to = {
          "sdcm",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender", is = "00" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "unused2", at = 9, width = 1, kind = "bytes", any = true },
        { name = "vid", at = 10, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 12, width = 2, kind = "u16", hex = true },
        { name = "serial", at = 14, width = 64, kind = "text" },
        { name = "devpath", at = 78, width = 128, kind = "text" },
        { name = "devid", at = 206, width = 32, kind = "text" },
        { name = "unused3", at = 238, width = 2, kind = "bytes", unused = true },
        { name = "result", at = 240, width = 4, kind = "i32", words = "result" },
    } },
    { name = "media_command", size = 20, minimum = 20, longer = true, from = "media",
      to = {
          "usb",
      },
      fields = {
        { name = "unused", at = 0, width = 4, kind = "u32", any = true },
        { name = "cmd", at = 4, width = 4, kind = "u32", words = "cmd" },
        { name = "unused2", at = 8, width = 4, kind = "u32", any = true },
        { name = "dev_type", at = 12, width = 1, kind = "u8", words = "dev_type" },
        { name = "unused3", at = 13, width = 3, kind = "bytes", any = true },
        { name = "port", at = 16, width = 1, kind = "u8" },
        { name = "unused4", at = 17, width = 3, kind = "bytes", any = true },
    } },
    { name = "diag_adaption", size = 9, minimum = 5, longer = true, from = "diag",
      to = {
          "usb",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "8360220981" },
        { name = "port1", at = 5, width = 1, kind = "u8", hex = true },
        { name = "port2", at = 6, width = 1, kind = "u8", hex = true },
        { name = "port3", at = 7, width = 1, kind = "u8", hex = true },
        { name = "port4", at = 8, width = 1, kind = "u8", hex = true },
    } },
    { name = "diag_coding", size = 7, minimum = 5, longer = true, from = "diag",
      to = {
          "usb",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "8360220557" },
        { name = "unused", at = 5, width = 1, kind = "u8", any = true },
        { name = "coding", at = 6, width = 1, kind = "u8", hex = true },
    } },
    { name = "diag_run_test", size = 6, minimum = 5, longer = true, from = "diag",
      to = {
          "usb",
      },
      fields = {
        { name = "head", at = 0, width = 5, kind = "bytes", is = "83603180aa" },
        { name = "start", at = 5, width = 1, kind = "u8" },
    } },
    { name = "diag_request", size = 5, minimum = 5, longer = true, from = "diag",
      to = {
          "usb",
      },
      fields = {
        { name = "command", at = 0, width = 1, kind = "u8", hex = true },
        { name = "sub_command", at = 1, width = 1, kind = "u8", hex = true },
        { name = "service", at = 2, width = 1, kind = "u8", words = "diag_service", hex = true },
        { name = "rdid1", at = 3, width = 1, kind = "u8", hex = true },
        { name = "rdid2", at = 4, width = 1, kind = "u8", hex = true },
    } },
    { name = "power", size = 7, minimum = 3, longer = true, from = "power",
      to = {
          "usb",
      },
      fields = {
        { name = "head", at = 0, width = 2, kind = "bytes", is = "8391" },
        { name = "about", at = 2, width = 1, kind = "u8", words = "power_kind" },
        { name = "value1", at = 3, width = 1, kind = "u8" },
        { name = "value2", at = 4, width = 1, kind = "u8" },
        { name = "value3", at = 5, width = 1, kind = "u8" },
        { name = "value4", at = 6, width = 1, kind = "u8" },
    } },
    { name = "test_command", size = 5, minimum = 3, longer = true, from = "test",
      to = {
          "usb",
      },
      fields = {
        { name = "head", at = 0, width = 3, kind = "bytes", is = "023102" },
        { name = "extra_command", at = 3, width = 1, kind = "u8" },
        { name = "port", at = 4, width = 1, kind = "u8" },
    } },
    { name = "setting_changed", size = 128, minimum = 1, longer = true, from = "settings",
      to = {
          "usb",
      },
      fields = {
        { name = "path", at = 0, width = 128, kind = "text" },
    } },
    { name = "mode_request", size = 244, minimum = 244, longer = false, from = "sdcm",
      to = {
          "usb",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "unused2", at = 9, width = 1, kind = "bytes", any = true },
        { name = "vid", at = 10, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 12, width = 2, kind = "u16", hex = true },
        { name = "serial", at = 14, width = 64, kind = "text" },
        { name = "devpath", at = 78, width = 128, kind = "text" },
        { name = "devid", at = 206, width = 32, kind = "text" },
        { name = "unused3", at = 238, width = 2, kind = "bytes", any = true },
        { name = "result", at = 240, width = 4, kind = "i32", words = "result" },
    } },
    { name = "search", size = 12, minimum = 12, longer = false, from = "sdcm",
      to = {
          "usb",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id", is = "12000000" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "trigger", at = 9, width = 1, kind = "u8", words = "trigger" },
        { name = "unused2", at = 10, width = 2, kind = "bytes", any = true },
    } },
    { name = "command", size = 12, minimum = 12, longer = false, from = "sdcm",
      to = {
          "usb",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "unused2", at = 9, width = 3, kind = "bytes", any = true },
    } },
    { name = "message", size = 12, minimum = 12, longer = false, from = "usb",
      to = {
          "usb",
          "monitor",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "argument", at = 9, width = 1, kind = "u8" },
        { name = "unused2", at = 10, width = 2, kind = "bytes", unused = true },
    } },
    { name = "node", size = 348, minimum = 348, longer = false, from = "usb",
      to = {
          "usb",
          "monitor",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "unused2", at = 9, width = 3, kind = "bytes", any = true },
        { name = "dev_type", at = 12, width = 4, kind = "u32", words = "dev_type" },
        { name = "vid", at = 16, width = 2, kind = "u16", hex = true },
        { name = "pid", at = 18, width = 2, kind = "u16", hex = true },
        { name = "usb_class", at = 20, width = 1, kind = "u8", hex = true },
        { name = "unused3", at = 21, width = 3, kind = "bytes", any = true },
        { name = "speed", at = 24, width = 4, kind = "u32", words = "speed" },
        { name = "serial", at = 28, width = 64, kind = "text" },
        { name = "product", at = 92, width = 64, kind = "text" },
        { name = "manufacturer", at = 156, width = 64, kind = "text" },
        { name = "devpath", at = 220, width = 128, kind = "text" },
    } },
    { name = "mount_error", size = 148, minimum = 148, longer = false, from = "usb",
      to = {
          "monitor",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "unused2", at = 9, width = 3, kind = "bytes", any = true },
        { name = "packet", at = 12, width = 136, kind = "bytes" },
    } },
    { name = "over_current", size = 140, minimum = 140, longer = false, from = "usb",
      to = {
          "monitor",
      },
      fields = {
        { name = "sender", at = 0, width = 1, kind = "u8", words = "sender" },
        { name = "unused", at = 1, width = 3, kind = "bytes", any = true },
        { name = "id", at = 4, width = 4, kind = "u32", words = "id" },
        { name = "port", at = 8, width = 1, kind = "u8" },
        { name = "devpath", at = 9, width = 128, kind = "text" },
        { name = "unused2", at = 137, width = 3, kind = "bytes", unused = true },
    } },
}
-- end of the description

-- The tap's head: platform/include/platform/tap.h
local MAGIC = 0x5041544B
local VERSION = 1
local HEAD_BYTES = 96
local DIRECTIONS = { [1] = "in", [2] = "out" }
local OUTCOMES = { [0] = "delivered", [1] = "no receiver", [2] = "full" }
local DELIVERED = 0

local service = Proto("usbservice", "USB service")
local fault = ProtoExpert.new("usbservice.fault", "Fault", expert.group.MALFORMED, expert.severity.WARN)
service.experts = { fault }

local head = {
    version = ProtoField.uint16("usbservice.version", "version"),
    monotonic_ns = ProtoField.uint64("usbservice.monotonic_ns", "monotonic_ns"),
    time = ProtoField.absolute_time("usbservice.time", "time", base.LOCAL),
    mask = ProtoField.uint64("usbservice.mask", "mask", base.HEX),
    lost = ProtoField.uint32("usbservice.lost", "lost"),
    length = ProtoField.uint32("usbservice.length", "length"),
    direction = ProtoField.uint8("usbservice.direction", "direction", base.DEC, DIRECTIONS),
    outcome = ProtoField.uint8("usbservice.outcome", "outcome", base.DEC, OUTCOMES),
    sender = ProtoField.string("usbservice.sender", "sender"),
    receiver = ProtoField.string("usbservice.receiver", "receiver"),
}
local record_name = ProtoField.string("usbservice.record", "record")
local unknown = ProtoField.bytes("usbservice.unknown", "bytes that no description fits")
-- The same number under one name, whatever the record.
local common = {
    id = ProtoField.uint32("usbservice.id", "id"),
    port = ProtoField.uint32("usbservice.port", "port"),
}

local NUMBERS = { u8 = ProtoField.uint8, u16 = ProtoField.uint16, u32 = ProtoField.uint32, i32 = ProtoField.int32 }

local function proto_field(record, field)
    local filter = "usbservice." .. record.name .. "." .. field.name
    if field.kind == "text" then return ProtoField.string(filter, field.name) end
    if field.kind == "bytes" then return ProtoField.bytes(filter, field.name) end
    local shown = field.hex and base.HEX or base.DEC
    return NUMBERS[field.kind](filter, field.name, shown, field.words and WORDS[field.words])
end

local function all_fields()
    local all = { record_name, unknown, common.id, common.port }
    for _, field in pairs(head) do all[#all + 1] = field end
    for _, record in ipairs(RECORDS) do
        for _, field in ipairs(record.fields) do
            field.proto = proto_field(record, field)
            all[#all + 1] = field.proto
        end
    end
    return all
end
service.fields = all_fields()

-- What there is of the field in the record's bytes; nil: nothing.
local function piece_of(field, bytes)
    local length = math.min(field.width, bytes:len() - field.at)
    return length > 0 and bytes:range(field.at, length) or nil
end

local function holds(field, bytes)
    return field.kind == "text" or bytes:len() >= field.at + field.width
end

local function is_zero(piece)
    return not piece:bytes():tohex():find("[^0]")
end

local function contains(list, wanted)
    for _, one in ipairs(list) do
        if one == wanted then return true end
    end
    return false
end

local function fits(record, bytes)
    if bytes:len() < record.minimum or (bytes:len() > record.minimum and not record.longer) then return false end
    for _, field in ipairs(record.fields) do
        if field.is then
            local piece = piece_of(field, bytes)
            if not piece or piece:bytes():tohex(true) ~= field.is then return false end
        end
    end
    return true
end

local function identify(sender, receiver, bytes)
    for _, record in ipairs(RECORDS) do
        if record.from == sender and contains(record.to, receiver) and fits(record, bytes) then return record end
    end
    return nil
end

-- A text up to its first zero; how many bytes those are.
local function text_of(piece)
    if not piece then return "", 0 end
    local bytes = piece:bytes()
    local length = 0
    while length < bytes:len() and bytes:get_index(length) ~= 0 do length = length + 1 end
    return length > 0 and piece:range(0, length):string(ENC_UTF_8) or "", length
end

-- Safe in a terminal: control characters (C0, delete, C1) as \x1b.
local function quoted(text)
    local function escape(bytes)
        return (bytes:gsub(".", function(byte) return string.format("\\x%02x", byte:byte()) end))
    end
    return '"' .. text:gsub('["\\]', "\\%0"):gsub("%c", escape):gsub("\194[\128-\159]", escape) .. '"'
end

local function number_of(field, piece)
    return field.kind == "i32" and piece:le_int() or piece:le_uint()
end

local function complain(item, text)
    item:add_proto_expert_info(fault, text)
end

local function check_text(item, field, piece, length)
    if not piece or length == piece:len() then
        complain(item, field.name .. " is not terminated")
    elseif not is_zero(piece:range(length)) then
        complain(item, field.name .. " has bytes behind its end")
    end
end

-- Adds the field, and returns what it says in one line; nil when that is not worth one.
local function add_field(tree, field, bytes)
    local piece = piece_of(field, bytes)
    local item, said
    if field.kind == "text" then
        local text, length = text_of(piece)
        item = piece and tree:add(field.proto, piece, text) or tree:add(field.proto, text)
        check_text(item, field, piece, length)
        said = text ~= "" and quoted(text) or nil
    elseif field.kind == "bytes" then
        item = tree:add(field.proto, piece)
        said = piece:bytes():tohex(true)
    else
        item = tree:add_le(field.proto, piece)
        local number = number_of(field, piece)
        local word = field.words and WORDS[field.words][number]
        said = word or string.format(field.hex and "0x%0" .. 2 * field.width .. "x" or "%d", number)
        if common[field.name] then tree:add(common[field.name], piece, number):set_hidden() end
    end
    if field.unused and piece and not is_zero(piece) then complain(item, field.name .. " is not zero") end
    return not (field.is or field.unused or field.any) and said or nil
end

local function add_record(tree, record, bytes)
    tree:add(record_name, record.name)
    local line = record.name
    local whole = true
    for _, field in ipairs(record.fields) do
        if holds(field, bytes) then
            local said = add_field(tree, field, bytes)
            if said then line = line .. " " .. field.name .. "=" .. said end
        else
            whole = false
        end
    end
    if not whole then complain(tree, "ends after " .. bytes:len() .. " of " .. record.size .. " bytes") end
    return line
end

local function add_name(tree, field, piece, whose)
    local name, length = text_of(piece)
    local item = tree:add(field, piece, name)
    if length == piece:len() then complain(item, whose .. "'s name is not terminated") end
    return name
end

local function add_word(tree, field, piece, words, what)
    local item = tree:add(field, piece)
    local number = piece:uint()
    if not words[number] then complain(item, what .. " " .. number) end
    return number
end

-- Who sent it to whom, and what became of it.
local function add_head(tree, bytes, head_bytes)
    local road = {}
    tree:add_le(head.version, bytes:range(4, 2))
    tree:add_le(head.monotonic_ns, bytes:range(8, 8))
    local wall_ns = bytes:range(16, 8):le_uint64()
    local seconds = (wall_ns / 1000000000):tonumber()
    tree:add(head.time, bytes:range(16, 8), NSTime.new(seconds, (wall_ns % 1000000000):tonumber()))
    tree:add_le(head.mask, bytes:range(24, 8))
    tree:add_le(head.lost, bytes:range(32, 4))
    local length = tree:add_le(head.length, bytes:range(36, 4))
    add_word(tree, head.direction, bytes:range(40, 1), DIRECTIONS, "direction")
    road.outcome = add_word(tree, head.outcome, bytes:range(41, 1), OUTCOMES, "outcome")
    road.sender = add_name(tree, head.sender, bytes:range(48, 24), "sender")
    road.receiver = add_name(tree, head.receiver, bytes:range(72, 24), "receiver")
    local came = bytes:len() - head_bytes
    if bytes:range(36, 4):le_uint() ~= came then complain(length, came .. " bytes came") end
    return road
end

-- The bytes behind the head; a tvb cannot be empty.
local function record_of(bytes, head_bytes)
    if head_bytes < bytes:len() then return bytes:range(head_bytes):tvb() end
    return ByteArray.new():tvb("no record")
end

-- Why it is no datagram of a tap that we know; nil: it is one.
local function refusal(bytes)
    if bytes:len() < HEAD_BYTES then return bytes:len() .. " bytes are less than a head" end
    if bytes:range(0, 4):le_uint() ~= MAGIC then return "it is not the tap's: another magic number" end
    local version, head_bytes = bytes:range(4, 2):le_uint(), bytes:range(6, 2):le_uint()
    if version ~= VERSION then
        return "the tap speaks version " .. version .. ", this dissector version " .. VERSION
    end
    if head_bytes < HEAD_BYTES or head_bytes > bytes:len() then
        return "a head of " .. head_bytes .. " bytes in a datagram of " .. bytes:len() .. " bytes"
    end
    return nil
end

function service.dissector(bytes, pinfo, root)
    local tree = root:add(service, bytes())
    local reason = refusal(bytes)
    if reason then
        complain(tree, reason)
        pinfo.cols.protocol = "USB service"
        pinfo.cols.info = reason
        return Dissector.get("data"):call(bytes, pinfo, root)
    end
    local head_bytes = bytes:range(6, 2):le_uint()
    local road = add_head(tree, bytes, head_bytes)
    local record_bytes = record_of(bytes, head_bytes)
    local record = identify(road.sender, road.receiver, record_bytes)
    local line
    if record then
        line = add_record(tree, record, record_bytes)
    else
        line = record_bytes:len() .. " bytes that no description fits"
        if record_bytes:len() > 0 then tree:add(unknown, record_bytes()) end
    end
    if road.outcome ~= DELIVERED then line = line .. " (" .. (OUTCOMES[road.outcome] or "unknown") .. ")" end
    tree:append_text(": " .. line)
    pinfo.cols.protocol = "USB service"
    pinfo.cols.src = road.sender
    pinfo.cols.dst = road.receiver
    pinfo.cols.info = line
    return bytes:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, service)
