# A test program that talks to made-up phones: usb_unit_test(... SOURCES ${FAKE_LIBUSB} ... WRAP ${FAKE_LIBUSB_WRAP}).
set(FAKE_LIBUSB ${CMAKE_SOURCE_DIR}/tests/support/FakeLibusb.cpp)
set(FAKE_LIBUSB_WRAP libusb_init libusb_exit libusb_get_device_list libusb_free_device_list
    libusb_get_device_descriptor libusb_get_port_number libusb_open libusb_close libusb_control_transfer
    libusb_reset_device)
