// SPDX-License-Identifier: GPL-2.0
/*
 * Plays the head unit's board on a virtual machine: the device paths, the board's identity, and what the platform's
 * own USB host driver adds to a stock kernel.
 *
 *   /sys/devices/soc/soc:common_gpio_default/board_id
 *   /sys/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto/usb1/...
 */
#include <linux/module.h>
#include <linux/slab.h>

#include "board.h"

static char *board_id = "X53";
module_param(board_id, charp, 0444);
MODULE_PARM_DESC(board_id, "text of the attribute board_id; empty: no such attribute");

static ssize_t board_id_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	return sysfs_emit(buf, "%s\n", board_id);
}
static DEVICE_ATTR_RO(board_id);

static struct device *soc, *hsusb, *dwc3, *gpio;

static void board_release(struct device *dev)
{
	kfree(dev);
}

/* A device without bus and driver: a place in the tree. */
static struct device *board_place(struct device *parent, const char *name)
{
	struct device *dev = kzalloc(sizeof(*dev), GFP_KERNEL);
	int error;

	if (!dev)
		return ERR_PTR(-ENOMEM);
	dev->parent = parent;
	dev->release = board_release;
	error = dev_set_name(dev, "%s", name);
	if (!error)
		error = device_register(dev);
	if (error) {
		put_device(dev);
		return ERR_PTR(error);
	}
	return dev;
}

static void board_remove_places(void)
{
	if (!IS_ERR_OR_NULL(gpio))
		device_unregister(gpio);
	if (!IS_ERR_OR_NULL(dwc3))
		device_unregister(dwc3);
	if (!IS_ERR_OR_NULL(hsusb))
		device_unregister(hsusb);
	if (!IS_ERR_OR_NULL(soc))
		root_device_unregister(soc);
}

static int board_add_places(void)
{
	soc = root_device_register("soc");
	if (IS_ERR(soc))
		return PTR_ERR(soc);
	hsusb = board_place(soc, "7600000.hsusb");
	if (IS_ERR(hsusb))
		return PTR_ERR(hsusb);
	dwc3 = board_place(hsusb, "7600000.dwc3");
	if (IS_ERR(dwc3))
		return PTR_ERR(dwc3);
	gpio = board_place(soc, "soc:common_gpio_default");
	if (IS_ERR(gpio))
		return PTR_ERR(gpio);
	return board_id[0] ? device_create_file(gpio, &dev_attr_board_id) : 0;
}

static int __init board_init(void)
{
	int error = board_add_places();

	if (error)
		goto no_places;
	error = board_identity_init();
	if (error)
		goto no_places;
	error = board_disk_init();
	if (error)
		goto no_disk;
	error = board_power_init(gpio);
	if (error)
		goto no_power;
	error = board_controller_init(dwc3);
	if (error)
		goto no_controller;
	return 0;

no_controller:
	board_power_exit();
no_power:
	board_disk_exit();
no_disk:
	board_identity_exit();
no_places:
	board_remove_places();
	return error;
}
module_init(board_init);

static void __exit board_exit(void)
{
	board_controller_exit();
	board_power_exit();
	board_disk_exit();
	board_identity_exit();
	board_remove_places();
}
module_exit(board_exit);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("The head unit's board on a virtual machine");
MODULE_SOFTDEP("pre: usbcore");
