usb_kipc_test("" kipcmon PROGRAMS kipcmon)
usb_kipc_test("" wireshark PROGRAMS kipcmon)
usb_manual_test(kipcmon 1)
if("_asan" IN_LIST USB_VARIANTS)     # one thread: nothing for the other sanitizer
    usb_kipc_test(_asan kipcmon PROGRAMS kipcmon TIMEOUT 300)
endif()
