// SPDX-License-Identifier: GPL-2.0
/*
 * The power of the board's hub. A port is really cut, and restored, through the kernel's own attribute
 * 1-1:1.0/1-1-port<n>/disable: what hangs there disappears, and enumerates again. GPIO 70 switches the supply of the
 * hub, 1 being off; it cuts all its ports, the hub itself stays on the bus.
 *
 * "headunit_board: port 2 off" and "... on" are in the kernel's log when it has been done.
 */
#include <linux/fs.h>
#include <linux/gpio/driver.h>
#include <linux/module.h>
#include <linux/mutex.h>

#include "board.h"

#define HUB_PORTS 2
#define FIRST_GPIO 64
#define GPIOS 8
#define HUB_SUPPLY_OFF (70 - FIRST_GPIO)

static DEFINE_MUTEX(power_lock);
static bool port_off[HUB_PORTS + 1];	/* by its own switch; the first is no port */
static unsigned long gpio_values, gpio_outputs;

static bool hub_is_off(void)
{
	return test_bit(HUB_SUPPLY_OFF, &gpio_values);
}

static int write_disable(unsigned int port, bool off)
{
	char path[64];
	struct file *file;
	loff_t at = 0;
	ssize_t written;

	snprintf(path, sizeof(path), "/sys/bus/usb/devices/1-1:1.0/1-1-port%u/disable", port);
	file = filp_open(path, O_WRONLY, 0);
	if (IS_ERR(file))
		return PTR_ERR(file);
	written = kernel_write(file, off ? "1" : "0", 1, &at);
	filp_close(file, NULL);
	return written < 0 ? written : 0;
}

static int apply(unsigned int port)
{
	bool off = port_off[port] || hub_is_off();
	int error = write_disable(port, off);

	if (error)
		pr_err("headunit_board: port %u cannot be switched: %d\n", port, error);
	else
		pr_info("headunit_board: port %u %s\n", port, off ? "off" : "on");
	return error;
}

int board_port_power(int port, bool on)
{
	int error;

	if (port < 1 || port > HUB_PORTS)
		return -ENODEV;
	mutex_lock(&power_lock);
	port_off[port] = !on;
	error = apply(port);
	mutex_unlock(&power_lock);
	return error;
}

/* Ports come up with power. */
void board_power_ports_appeared(void)
{
	memset(port_off, 0, sizeof(port_off));
}

static int gpio_get(struct gpio_chip *chip, unsigned int offset)
{
	return test_bit(offset, &gpio_values);
}

static void gpio_set(struct gpio_chip *chip, unsigned int offset, int value)
{
	unsigned int port;

	mutex_lock(&power_lock);
	if (test_bit(offset, &gpio_values) != !!value) {
		assign_bit(offset, &gpio_values, value);
		pr_info("headunit_board: gpio%u <- %d\n", FIRST_GPIO + offset, !!value);
		for (port = 1; offset == HUB_SUPPLY_OFF && port <= HUB_PORTS; port++)
			apply(port);
	}
	mutex_unlock(&power_lock);
}

static int gpio_output(struct gpio_chip *chip, unsigned int offset, int value)
{
	set_bit(offset, &gpio_outputs);
	gpio_set(chip, offset, value);
	return 0;
}

static int gpio_input(struct gpio_chip *chip, unsigned int offset)
{
	clear_bit(offset, &gpio_outputs);
	return 0;
}

static int gpio_direction(struct gpio_chip *chip, unsigned int offset)
{
	return test_bit(offset, &gpio_outputs) ? GPIO_LINE_DIRECTION_OUT : GPIO_LINE_DIRECTION_IN;
}

static struct gpio_chip gpio_chip = {
	.label = "headunit_board",
	.owner = THIS_MODULE,
	.base = FIRST_GPIO,
	.ngpio = GPIOS,
	.can_sleep = true,
	.get = gpio_get,
	.set = gpio_set,
	.get_direction = gpio_direction,
	.direction_output = gpio_output,
	.direction_input = gpio_input,
};

int board_power_init(struct device *gpio)
{
	gpio_chip.parent = gpio;
	return gpiochip_add_data(&gpio_chip, NULL);
}

void board_power_exit(void)
{
	gpiochip_remove(&gpio_chip);
}
