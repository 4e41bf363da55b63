// SPDX-License-Identifier: GPL-2.0
/*
 * The over-current sensors of the vehicle's hub, 1-1:1.0/1-1-port<n>/overcurrent. What they read is set by parameters.
 * Writing 1 to one switches its port's power on again; each write is logged ("headunit_board: 1-1-port2/overcurrent
 * <- 1"). An over-current does not cut the power by itself: a test that wants it dark cuts it.
 *
 * The host driver reports an over-current by a "change" of the hub, 1-1, with EVENT=overcurrent and PORT_NUM=. Here it
 * does so when it is told: "2" reports port 2, "2 1000" a thousand times without a pause.
 */
#include <linux/kobject.h>
#include <linux/module.h>
#include <linux/sysfs.h>

#include "board.h"

#define HUB_PORTS 2

static unsigned int overcurrent;
module_param(overcurrent, uint, 0644);
MODULE_PARM_DESC(overcurrent, "bit n: reading of 1-1-port<n>/overcurrent");

static unsigned int overcurrent_clears[HUB_PORTS];
module_param_array(overcurrent_clears, uint, NULL, 0644);
MODULE_PARM_DESC(overcurrent_clears, "for ports 1 and 2: after so many writes the reading becomes 0; 0: never");

static int report_set(const char *text, const struct kernel_param *param)
{
	unsigned int port, times = 1;
	char port_num[16];
	char *extra[] = { "EVENT=overcurrent", port_num, NULL };
	struct device *hub;
	int error = 0;

	if (sscanf(text, "%u %u", &port, &times) < 1)
		return -EINVAL;
	hub = board_usb_device("1-1");
	if (!hub)
		return -ENODEV;
	snprintf(port_num, sizeof(port_num), "PORT_NUM=%u", port);
	while (!error && times-- > 0)
		error = kobject_uevent_env(&hub->kobj, KOBJ_CHANGE, extra);
	put_device(hub);
	return error;
}

static const struct kernel_param_ops report_ops = { .set = report_set };
module_param_cb(report_overcurrent, &report_ops, NULL, 0200);
MODULE_PARM_DESC(report_overcurrent, "port, and how many times: reports an over-current as the host driver does");

static int port_of(struct device *dev, unsigned int *port)
{
	return sscanf(dev_name(dev), "1-1-port%u", port) == 1 && *port >= 1 && *port <= HUB_PORTS ? 0 : -ENODEV;
}

static ssize_t overcurrent_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	unsigned int port;
	int error = port_of(dev, &port);

	return error ? error : sysfs_emit(buf, "%u\n", (overcurrent >> port) & 1);
}

/* Before the power is switched: a device that comes back at once reads what is true by then. */
static void count_write(unsigned int port)
{
	kernel_param_lock(THIS_MODULE);
	if (overcurrent_clears[port - 1] && --overcurrent_clears[port - 1] == 0)
		overcurrent &= ~(1u << port);
	kernel_param_unlock(THIS_MODULE);
}

static ssize_t overcurrent_store(struct device *dev, struct device_attribute *attr, const char *buf, size_t count)
{
	struct kernfs_node *node;
	unsigned int port;
	int value;
	int error = port_of(dev, &port);

	if (!error)
		error = kstrtoint(buf, 0, &value);
	if (error)
		return error;
	pr_info("headunit_board: %s/overcurrent <- %d\n", dev_name(dev), value);
	count_write(port);
	if (value != 1)
		return count;
	/* The hub may leave meanwhile: it takes this attribute away, and would wait for this call to end. */
	node = sysfs_break_active_protection(&dev->kobj, &attr->attr);
	error = board_port_power(port, true);
	if (node)
		sysfs_unbreak_active_protection(node);
	return error ? error : count;
}
static DEVICE_ATTR_RW(overcurrent);

int board_overcurrent_add(struct device *port)
{
	return device_create_file(port, &dev_attr_overcurrent);
}
