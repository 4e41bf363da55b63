// SPDX-License-Identifier: GPL-2.0
/*
 * The virtual machine has its xHCI on PCI; on the board it is a platform device below 7600000.dwc3. This driver takes
 * the PCI function (xhci-pci must not be loaded) and hands its registers and its interrupt to xhci-plat-hcd.
 *
 * Below the controller are the attributes of the board's USB host driver. What is read there is set by the module's
 * parameters; what is written there is remembered and logged ("headunit_board: port_sel <- 1"). Of ka_hub_control,
 * 3 cuts the power of the selected port and 4 restores it; the roles 1 (host) and 2 (device) change nothing.
 */
#include <linux/dma-mapping.h>
#include <linux/module.h>
#include <linux/pci.h>
#include <linux/platform_device.h>

#include "board.h"

/* As get_options() gives them: how many, then the readings. The last one stays. */
static int temperatures[1 + 128] = { 1, 1 };
static int next_temperature = 1;

static int temperature_set(const char *text, const struct kernel_param *param)
{
	int readings[ARRAY_SIZE(temperatures)];
	const char *rest = get_options(text, ARRAY_SIZE(readings), readings);

	if (readings[0] == 0 || *skip_spaces(rest))
		return -EINVAL;
	memcpy(temperatures, readings, sizeof(readings));
	next_temperature = 1;
	return 0;
}

static int temperature_get(char *buffer, const struct kernel_param *param)
{
	return sysfs_emit(buffer, "%d\n", temperatures[next_temperature]);
}

static const struct kernel_param_ops temperature_ops = { .set = temperature_set, .get = temperature_get };
module_param_cb(temperature, &temperature_ops, NULL, 0644);
MODULE_PARM_DESC(temperature, "next readings of ka_hub_temperature, with commas between; 0 low, else high");

static int diag_result = 0xF0;
module_param(diag_result, int, 0644);
MODULE_PARM_DESC(diag_result, "reading of ka_hub_diag after a self-test was started; 240: four sockets in order");

static struct device *board_dwc3;
static struct bus_type *board_bus;

/* Last number written to each attribute. */
static int port_sel, hub_control, test_mode, diag_running;

static ssize_t remember(const char *name, int *number, const char *buf, size_t count)
{
	int error = kstrtoint(buf, 0, number);

	if (error)
		return error;
	pr_info("headunit_board: %s <- %d\n", name, *number);
	return count;
}

#define HUB_OFF 3
#define HUB_ON 4

#define BOARD_WRITTEN(_name, _number)                                                                  \
	static ssize_t _name##_store(struct device *dev, struct device_attribute *attr, const char *buf,  \
				     size_t count)                                                        \
	{                                                                                              \
		return remember(#_name, &_number, buf, count);                                         \
	}

#define BOARD_SHOWN(_name, _expression)                                                                \
	static ssize_t _name##_show(struct device *dev, struct device_attribute *attr, char *buf)         \
	{                                                                                              \
		return sysfs_emit(buf, "%d\n", _expression);                                           \
	}

struct device *board_usb_device(const char *name)
{
	return board_bus ? bus_find_device_by_name(board_bus, NULL, name) : NULL;
}

/* 1 when a device hangs on the selected port of the board's hub. */
static int port_is_taken(void)
{
	char name[16];
	struct device *dev;

	snprintf(name, sizeof(name), "1-1.%d", port_sel);
	dev = board_usb_device(name);
	put_device(dev);
	return dev ? 1 : 0;
}

BOARD_WRITTEN(port_sel, port_sel)
BOARD_SHOWN(port_sel, port_sel)
static DEVICE_ATTR_RW(port_sel);

static ssize_t ka_hub_control_store(struct device *dev, struct device_attribute *attr, const char *buf, size_t count)
{
	ssize_t result = remember("ka_hub_control", &hub_control, buf, count);
	int error = 0;

	if (result < 0)
		return result;
	if (hub_control == HUB_OFF || hub_control == HUB_ON)
		error = board_port_power(port_sel, hub_control == HUB_ON);
	return error ? error : result;
}
BOARD_SHOWN(ka_hub_control, hub_control)
static DEVICE_ATTR_RW(ka_hub_control);

BOARD_WRITTEN(testmode, test_mode)
BOARD_SHOWN(testmode, test_mode)
static DEVICE_ATTR_RW(testmode);

BOARD_WRITTEN(ka_hub_diag, diag_running)
BOARD_SHOWN(ka_hub_diag, diag_running ? diag_result : 0)
static DEVICE_ATTR_RW(ka_hub_diag);

BOARD_SHOWN(ka_hub_port_status, port_is_taken())
static DEVICE_ATTR_RO(ka_hub_port_status);

static ssize_t ka_hub_temperature_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	int reading;

	kernel_param_lock(THIS_MODULE);
	reading = temperatures[next_temperature];
	if (next_temperature < temperatures[0])
		next_temperature++;
	kernel_param_unlock(THIS_MODULE);
	return sysfs_emit(buf, "%d\n", reading);
}
static DEVICE_ATTR_RO(ka_hub_temperature);

static struct attribute *board_hub_attrs[] = {
	&dev_attr_port_sel.attr,
	&dev_attr_ka_hub_control.attr,
	&dev_attr_testmode.attr,
	&dev_attr_ka_hub_diag.attr,
	&dev_attr_ka_hub_port_status.attr,
	&dev_attr_ka_hub_temperature.attr,
	NULL,
};
ATTRIBUTE_GROUPS(board_hub);

static int add_overcurrent(struct device *port, void *unused)
{
	int error;

	if (strncmp(dev_name(port), "1-1-port", strlen("1-1-port")) != 0)
		return 0;
	error = board_overcurrent_add(port);
	if (error)
		dev_err(port, "no attribute overcurrent: %d\n", error);
	return 0;
}

void board_ports_appeared(struct device *hub_interface)
{
	if (strcmp(dev_name(hub_interface), "1-1:1.0") != 0)
		return;
	device_for_each_child(hub_interface, NULL, add_overcurrent);
	board_power_ports_appeared();
}

void board_controller_sees_bus(struct bus_type *bus)
{
	board_bus = bus;
}

static int board_pci_probe(struct pci_dev *pci, const struct pci_device_id *id)
{
	struct resource resources[2] = {};
	struct platform_device *xhci;
	int error = pcim_enable_device(pci);

	if (error)
		return error;
	pci_set_master(pci);
	error = pci_alloc_irq_vectors(pci, 1, 1, PCI_IRQ_LEGACY);
	if (error < 0)
		return error;

	/* AUTO, not a number: the name has to become xhci-hcd.0.auto. */
	xhci = platform_device_alloc("xhci-hcd", PLATFORM_DEVID_AUTO);
	if (!xhci) {
		error = -ENOMEM;
		goto no_device;
	}
	resources[0] = (struct resource)DEFINE_RES_MEM(pci_resource_start(pci, 0), pci_resource_len(pci, 0));
	resources[1] = (struct resource)DEFINE_RES_IRQ(pci_irq_vector(pci, 0));
	error = platform_device_add_resources(xhci, resources, ARRAY_SIZE(resources));
	if (error)
		goto no_platform;

	xhci->dev.parent = board_dwc3;
	xhci->dev.groups = board_hub_groups;
	xhci->dev.dma_mask = &xhci->dev.coherent_dma_mask;
	xhci->dev.coherent_dma_mask = DMA_BIT_MASK(64);
	xhci->dev.dma_coherent = true;
	error = platform_device_add(xhci);
	if (error)
		goto no_platform;
	pci_set_drvdata(pci, xhci);
	return 0;

no_platform:
	platform_device_put(xhci);
no_device:
	pci_free_irq_vectors(pci);
	return error;
}

static void board_pci_remove(struct pci_dev *pci)
{
	platform_device_unregister(pci_get_drvdata(pci));
	pci_free_irq_vectors(pci);
}

static const struct pci_device_id board_pci_ids[] = {
	{ PCI_DEVICE_CLASS(PCI_CLASS_SERIAL_USB_XHCI, ~0) },
	{}
};

static struct pci_driver board_pci_driver = {
	.name = "headunit_board",
	.id_table = board_pci_ids,
	.probe = board_pci_probe,
	.remove = board_pci_remove,
};

int board_controller_init(struct device *dwc3)
{
	board_dwc3 = dwc3;
	return pci_register_driver(&board_pci_driver);
}

void board_controller_exit(void)
{
	pci_unregister_driver(&board_pci_driver);
}
