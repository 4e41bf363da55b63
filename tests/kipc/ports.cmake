usb_kipc_test("" ports PROGRAMS usbservice-ports)
usb_manual_test(usbservice-ports 1)

# The services have no options: only the form of their pages can be wrong.
find_program(USB_MANDOC mandoc REQUIRED)
foreach(page usbservice.8 css.8)
    add_test(NAME kipc/manual_of_${page} COMMAND ${USB_MANDOC} -Tlint -Wwarning ${CMAKE_SOURCE_DIR}/packaging/man/${page})
    set_tests_properties(kipc/manual_of_${page} PROPERTIES LABELS unit TIMEOUT 30)
endforeach()
foreach(variant ${USB_VARIANTS})
    usb_kipc_test(${variant} ports PROGRAMS usbservice-ports)
endforeach()
