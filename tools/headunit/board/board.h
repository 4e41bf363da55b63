/* SPDX-License-Identifier: GPL-2.0 */
/* The parts of the board, each set up by main.c in this order and taken down in the reverse one. */
#pragma once

#include <linux/device.h>

/* controller.c: the USB host controller at the board's own place, and the attributes below it. */
int board_controller_init(struct device *dwc3);
void board_controller_exit(void);

/* Called by identity.c, which watches the bus: a hub has been bound, its ports exist; and the bus itself. */
void board_ports_appeared(struct device *hub_interface);
void board_controller_sees_bus(struct bus_type *bus);

/* A device of the USB bus by its name, to be put back; NULL: there is none. */
struct device *board_usb_device(const char *name);

/* identity.c: which ids and classes a device on a given port shows. */
int board_identity_init(void);
void board_identity_exit(void);

/* power.c: the power of the hub's ports, and the GPIO of its supply. */
int board_power_init(struct device *gpio);
void board_power_exit(void);
int board_port_power(int port, bool on);
void board_power_ports_appeared(void);

/* overcurrent.c: the sensor of one port of the hub. */
int board_overcurrent_add(struct device *port);

/* disk.c: the attribute "disk_partno" of USB disks. */
int board_disk_init(void);
void board_disk_exit(void);
