// SPDX-License-Identifier: GPL-2.0
/*
 * The platform's kernel gives each USB disk the attribute "disk_partno", the number of its partitions. A stock kernel
 * has none. With the parameter disk_partno=1 disks that arrive from then on have it, readable when their uevent comes.
 */
#include <linux/blkdev.h>
#include <linux/module.h>

#include "board.h"

static bool disk_partno;
module_param(disk_partno, bool, 0644);
MODULE_PARM_DESC(disk_partno, "give USB disks the attribute disk_partno");

static ssize_t disk_partno_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	struct gendisk *disk = dev_to_disk(dev);
	struct block_device *part;
	unsigned long number;
	int count = 0;

	rcu_read_lock();
	xa_for_each_start(&disk->part_tbl, number, part, 1)	/* 0 is the whole disk */
		count++;
	rcu_read_unlock();
	return sysfs_emit(buf, "%d\n", count);
}
static DEVICE_ATTR_RO(disk_partno);

static bool hangs_on_usb(struct device *dev)
{
	for (dev = dev->parent; dev; dev = dev->parent)
		if (dev->bus && strcmp(dev->bus->name, "usb") == 0)
			return true;
	return false;
}

static bool is_whole_disk(struct device *dev)
{
	return !bdev_is_partition(dev_to_bdev(dev));
}

static int disk_arrives(struct device *dev, struct class_interface *unused)
{
	int error;

	if (!disk_partno || !is_whole_disk(dev) || !hangs_on_usb(dev))
		return 0;
	error = device_create_file(dev, &dev_attr_disk_partno);
	if (error)
		dev_err(dev, "no attribute disk_partno: %d\n", error);
	return 0;
}

static void disk_leaves(struct device *dev, struct class_interface *unused)
{
	if (is_whole_disk(dev))
		device_remove_file(dev, &dev_attr_disk_partno);
}

static struct class_interface disk_interface = {
	.add_dev = disk_arrives,
	.remove_dev = disk_leaves,
};

/* The block class is not exported; a disk that is never added leads to it. */
int board_disk_init(void)
{
	struct gendisk *disk = blk_alloc_disk(NUMA_NO_NODE);

	if (!disk)
		return -ENOMEM;
	disk_interface.class = disk_to_dev(disk)->class;
	put_disk(disk);
	return class_interface_register(&disk_interface);
}

void board_disk_exit(void)
{
	class_interface_unregister(&disk_interface);
}
