// SPDX-License-Identifier: GPL-2.0
/*
 * Shows devices under other ids than the virtual machine gives them, before the kernel announces them: uevent, sysfs
 * and /dev/bus/usb all agree. Rules are written to the parameter "rewrite", one or several separated by blanks:
 *
 *   1-1.2=2166:000c                                   vendor and product (hexadecimal) for what is plugged there
 *   1-1.1=05ac:1300,class=ff,iface=ff/01/02,serial=X  also device class, class[/subclass[/protocol]] of each
 *                                                     interface, serial text (- : none)
 *   -                                                 forget all rules but the board's own hub
 *
 * A rule is for devices that arrive from then on; a later rule for the same place replaces the earlier one. The
 * board's own hub, 1-1=0424:4504, is a rule from the beginning.
 *
 * A bus reset reads the descriptors anew: a device with other ids is then taken for exchanged and enumerated again.
 */
#include <linux/list.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/usb.h>
#include <linux/usb/ch9.h>

#include "board.h"

#define UNCHANGED (-1)

struct identity {
	struct list_head list;
	char place[32];			/* device name: 1-1.2.1 */
	u16 vendor, product;
	int device_class;		/* or UNCHANGED */
	int iface_class, iface_subclass, iface_protocol;
	bool has_serial;
	char serial[64];
};

static LIST_HEAD(identities);
static DEFINE_MUTEX(identities_lock);

static struct identity *find_identity(const char *place)
{
	struct identity *identity;

	list_for_each_entry(identity, &identities, list)
		if (strcmp(identity->place, place) == 0)
			return identity;
	return NULL;
}

static int parse_option(struct identity *identity, const char *option)
{
	unsigned int first, second, third;
	int count;

	if (sscanf(option, "class=%2x", &first) == 1) {
		identity->device_class = first;
		return 0;
	}
	count = sscanf(option, "iface=%2x/%2x/%2x", &first, &second, &third);
	if (count >= 1) {
		identity->iface_class = first;
		identity->iface_subclass = count >= 2 ? second : UNCHANGED;
		identity->iface_protocol = count >= 3 ? third : UNCHANGED;
		return 0;
	}
	if (strncmp(option, "serial=", 7) == 0) {
		identity->has_serial = true;
		strscpy(identity->serial, option + 7, sizeof(identity->serial));
		return 0;
	}
	return -EINVAL;
}

static int parse_identity(char *rule, struct identity *identity)
{
	char *place = strsep(&rule, "=");
	char *ids = strsep(&rule, ",");
	char *option;
	unsigned int vendor, product;
	int error;

	if (!ids || !*place || sscanf(ids, "%4x:%4x", &vendor, &product) != 2)
		return -EINVAL;
	if (strscpy(identity->place, place, sizeof(identity->place)) < 0)
		return -EINVAL;
	identity->vendor = vendor;
	identity->product = product;
	identity->device_class = UNCHANGED;
	identity->iface_class = identity->iface_subclass = identity->iface_protocol = UNCHANGED;
	while ((option = strsep(&rule, ",")) != NULL) {
		error = parse_option(identity, option);
		if (error)
			return error;
	}
	return 0;
}

static int add_identity(char *rule)
{
	struct identity *identity = kzalloc(sizeof(*identity), GFP_KERNEL);
	struct identity *former;
	int error;

	if (!identity)
		return -ENOMEM;
	error = parse_identity(rule, identity);
	if (error) {
		kfree(identity);
		return error;
	}
	former = find_identity(identity->place);
	if (former) {
		list_del(&former->list);
		kfree(former);
	}
	list_add_tail(&identity->list, &identities);
	return 0;
}

static void forget_identities(void)
{
	struct identity *identity, *next;

	list_for_each_entry_safe(identity, next, &identities, list) {
		list_del(&identity->list);
		kfree(identity);
	}
}

static int add_own_hub(void)
{
	char own[] = "1-1=0424:4504";

	return add_identity(own);
}

static int rewrite_set(const char *text, const struct kernel_param *param)
{
	char *copy = kstrdup(text, GFP_KERNEL);
	char *rest = copy;
	char *rule;
	int error = 0;

	if (!copy)
		return -ENOMEM;
	mutex_lock(&identities_lock);
	while (!error && (rule = strsep(&rest, " \t\n")) != NULL) {
		if (!*rule)
			continue;
		if (strcmp(rule, "-") == 0) {
			forget_identities();
			error = add_own_hub();
		} else {
			error = add_identity(rule);
		}
	}
	mutex_unlock(&identities_lock);
	kfree(copy);
	return error;
}

static int rewrite_get(char *buffer, const struct kernel_param *param)
{
	struct identity *identity;
	int length = 0;

	mutex_lock(&identities_lock);
	list_for_each_entry(identity, &identities, list)
		length += scnprintf(buffer + length, PAGE_SIZE - length, "%s=%04x:%04x\n", identity->place,
				    identity->vendor, identity->product);
	mutex_unlock(&identities_lock);
	return length;
}

static const struct kernel_param_ops rewrite_ops = { .set = rewrite_set, .get = rewrite_get };
module_param_cb(rewrite, &rewrite_ops, NULL, 0644);
MODULE_PARM_DESC(rewrite, "which ids a device on a given port shows; see the head of identity.c");

static void change_interface(struct usb_interface_descriptor *descriptor, const struct identity *identity)
{
	if (identity->iface_class != UNCHANGED)
		descriptor->bInterfaceClass = identity->iface_class;
	if (identity->iface_subclass != UNCHANGED)
		descriptor->bInterfaceSubClass = identity->iface_subclass;
	if (identity->iface_protocol != UNCHANGED)
		descriptor->bInterfaceProtocol = identity->iface_protocol;
}

/* The descriptors as the device sent them: what /dev/bus/usb and the attribute "descriptors" show. */
static void change_raw(unsigned char *raw, int length, const struct identity *identity)
{
	int at = 0;

	while (at + 2 <= length && raw[at] >= 2 && at + raw[at] <= length) {
		if (raw[at + 1] == USB_DT_INTERFACE && raw[at] >= USB_DT_INTERFACE_SIZE)
			change_interface((struct usb_interface_descriptor *)(raw + at), identity);
		at += raw[at];
	}
}

static void change_configuration(struct usb_device *udev, int index, const struct identity *identity)
{
	struct usb_host_config *config = &udev->config[index];
	int i, j;

	for (i = 0; i < config->desc.bNumInterfaces; i++) {
		struct usb_interface_cache *cache = config->intf_cache[i];

		for (j = 0; cache && j < cache->num_altsetting; j++)
			change_interface(&cache->altsetting[j].desc, identity);
	}
	if (udev->rawdescriptors && udev->rawdescriptors[index])
		change_raw(udev->rawdescriptors[index], le16_to_cpu(config->desc.wTotalLength), identity);
}

/* Only for devices that have a serial text of their own: its attribute has been made by now. */
static void change_serial(struct usb_device *udev, const char *text)
{
	static const struct attribute serial = { .name = "serial" };

	if (!udev->serial)
		return;
	kfree(udev->serial);
	udev->serial = NULL;
	if (strcmp(text, "-") == 0)
		sysfs_remove_file(&udev->dev.kobj, &serial);
	else
		udev->serial = kstrdup(text, GFP_KERNEL);
}

static void change_device(struct usb_device *udev, const struct identity *identity)
{
	int i;

	udev->descriptor.idVendor = cpu_to_le16(identity->vendor);
	udev->descriptor.idProduct = cpu_to_le16(identity->product);
	if (identity->device_class != UNCHANGED)
		udev->descriptor.bDeviceClass = identity->device_class;
	if (identity->iface_class != UNCHANGED)
		for (i = 0; i < udev->descriptor.bNumConfigurations; i++)
			change_configuration(udev, i, identity);
	if (identity->has_serial)
		change_serial(udev, identity->serial);
}

static void device_arrives(struct usb_device *udev)
{
	struct identity *identity;

	mutex_lock(&identities_lock);
	identity = find_identity(dev_name(&udev->dev));
	if (identity)
		change_device(udev, identity);
	mutex_unlock(&identities_lock);
}

static int bus_event(struct notifier_block *block, unsigned long action, void *data)
{
	struct device *dev = data;
	bool is_device = dev->type && strcmp(dev->type->name, "usb_device") == 0;

	if (action == BUS_NOTIFY_ADD_DEVICE && is_device)
		device_arrives(to_usb_device(dev));
	else if (action == BUS_NOTIFY_BOUND_DRIVER && !is_device)
		board_ports_appeared(dev);
	return NOTIFY_OK;
}

static struct notifier_block bus_block = { .notifier_call = bus_event };
static struct bus_type *usb_bus;

/* The USB bus type is not exported; the root hub, always the first device, leads to it. */
static int usb_event(struct notifier_block *block, unsigned long action, void *data)
{
	if (action != USB_DEVICE_ADD || usb_bus)
		return NOTIFY_OK;
	usb_bus = ((struct usb_device *)data)->dev.bus;
	if (bus_register_notifier(usb_bus, &bus_block)) {
		pr_err("headunit_board: cannot watch the USB bus\n");
		usb_bus = NULL;
		return NOTIFY_OK;
	}
	board_controller_sees_bus(usb_bus);
	return NOTIFY_OK;
}

static struct notifier_block usb_block = { .notifier_call = usb_event };

int board_identity_init(void)
{
	int error = 0;

	mutex_lock(&identities_lock);
	if (!find_identity("1-1"))	/* may have come with the module's arguments */
		error = add_own_hub();
	mutex_unlock(&identities_lock);
	if (error)
		return error;
	usb_register_notify(&usb_block);
	return 0;
}

void board_identity_exit(void)
{
	usb_unregister_notify(&usb_block);
	if (usb_bus)
		bus_unregister_notifier(usb_bus, &bus_block);
	forget_identities();
}
