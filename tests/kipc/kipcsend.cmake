usb_kipc_test("" kipcsend PROGRAMS kipcsend)
usb_kipc_test("" kipcsend_manual PROGRAMS kipcsend)
if(TARGET kipcsend_asan)    # it has one thread
    usb_kipc_test(_asan kipcsend PROGRAMS kipcsend)
endif()

# Before the real service: in namespaces of its own, as root.
add_test(NAME service/kipcsend COMMAND ${USB_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/test_kipcsend_service.py)
set_tests_properties(service/kipcsend PROPERTIES LABELS service TIMEOUT 180 RESOURCE_LOCK usb_loop_devices
    ENVIRONMENT "USBSERVICE=$<TARGET_FILE:usbservice>;KIPCSEND=$<TARGET_FILE:kipcsend>")
add_dependencies(service_tests kipcsend)
