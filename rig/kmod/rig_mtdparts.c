// SPDX-License-Identifier: GPL-2.0
/*
 * rig_mtdparts: test equipment of the virtual router (rig/), never part of the product.
 *
 * Adds named partitions on MTD device 0, the whole flash. Debian's kernel registers
 * nandsim's chip as one partition ("NAND simulator partition 0") and has no
 * CONFIG_MTD_PARTITIONED_MASTER, so mtdpart (BLKPG) refuses to partition it; nested
 * partitions of that partition work. /dev/mtd0 then stays the whole flash and /dev/mtdN
 * are the named partitions, as mtdpart makes them on mtdram and block2mtd.
 *
 *   insmod rig_mtdparts.ko layout=OFFSET:SIZE:NAME[,OFFSET:SIZE:NAME...]
 *
 * Removing the module removes its partitions again (a reboot with another table).
 * GPL-2.0 because mtd_add_partition() is exported to GPL modules only.
 */
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mtd/partitions.h>
#include <linux/slab.h>
#include <linux/string.h>

static char *layout;
module_param(layout, charp, 0444);
MODULE_PARM_DESC(layout, "OFFSET:SIZE:NAME[,...]: the partitions to add on mtd0");

#define RIG_MAX_PARTS 64

static struct mtd_info *flash;
static char *names[RIG_MAX_PARTS];
static int count;

static void rig_remove(void)
{
	while (count > 0) {
		struct mtd_info *part = get_mtd_device_nm(names[--count]);

		if (!IS_ERR(part)) {
			int index = part->index;

			put_mtd_device(part);
			mtd_del_partition(flash, index);
		}
		kfree(names[count]);
	}
}

static int __init rig_mtdparts_init(void)
{
	char *copy, *cursor, *entry;
	int ret = 0;

	flash = get_mtd_device(NULL, 0);
	if (IS_ERR(flash))
		return PTR_ERR(flash);
	copy = kstrdup(layout ? layout : "", GFP_KERNEL);
	if (!copy) {
		put_mtd_device(flash);
		return -ENOMEM;
	}
	cursor = copy;
	while (!ret && (entry = strsep(&cursor, ",")) && *entry) {
		char *offset = strsep(&entry, ":"), *size = strsep(&entry, ":");
		unsigned long long o, s;

		if (!entry || !*entry || count == RIG_MAX_PARTS || kstrtoull(offset, 0, &o) ||
		    kstrtoull(size, 0, &s)) {
			ret = -EINVAL;
			break;
		}
		names[count] = kstrdup(entry, GFP_KERNEL);
		if (!names[count]) {
			ret = -ENOMEM;
			break;
		}
		ret = mtd_add_partition(flash, names[count], o, s);
		if (ret)
			kfree(names[count]);
		else
			count++;
	}
	kfree(copy);
	if (ret) {
		pr_err("rig_mtdparts: cannot add the partitions of \"%s\": %d\n", layout, ret);
		rig_remove();
		put_mtd_device(flash);
	}
	return ret;
}

static void __exit rig_mtdparts_exit(void)
{
	rig_remove();
	put_mtd_device(flash);
}

module_init(rig_mtdparts_init);
module_exit(rig_mtdparts_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Test equipment: named partitions on the whole flash of the virtual router");
