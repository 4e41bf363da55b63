usb_kipc_test("" kipcmon PROGRAMS kipcmon)
usb_kipc_test("" wireshark PROGRAMS kipcmon TIMEOUT 300)
usb_manual_test(kipcmon 1)
if("_asan" IN_LIST USB_VARIANTS)     # one thread: nothing for the other sanitizer
    usb_kipc_test(_asan kipcmon PROGRAMS kipcmon TIMEOUT 300)
endif()

# At the real service's tap: in namespaces of its own, as root.
add_test(NAME service/kipcmon COMMAND ${USB_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/test_kipcmon_service.py)
set_tests_properties(service/kipcmon PROPERTIES LABELS service TIMEOUT 180 RESOURCE_LOCK usb_loop_devices
    ENVIRONMENT "USBSERVICE=$<TARGET_FILE:usbservice>;KIPCMON=$<TARGET_FILE:kipcmon>")
add_dependencies(service_tests kipcmon)
