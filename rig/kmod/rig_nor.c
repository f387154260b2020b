// SPDX-License-Identifier: GPL-2.0
/*
 * rig_nor: test equipment of the virtual router (rig/), never part of the product.
 *
 * A NOR flash in RAM, registered as an MTD device of type MTD_NORFLASH (/dev/mtd0 when it
 * is the only one). None of the kernel's RAM-backed MTD devices behaves like NOR: they
 * overwrite. Here, as on a real chip:
 *
 *   - an erase sets a whole erase block to 0xFF (only whole, aligned erase blocks);
 *   - a program can only clear bits: the data are ANDed into what the flash holds, one byte
 *     at a time (write size 1), and the result is read back and compared, as NOR drivers
 *     check a program. A write that needed a 0 to become a 1 fails with -EIO, and the flash
 *     keeps the AND of old and new bytes.
 *
 *   insmod rig_nor.ko [size=BYTES] [erase_size=BYTES] [program_ns_per_byte=NS] [erase_us=US]
 *
 *   size                 the flash's size (default 8 MiB), a multiple of erase_size;
 *   erase_size           the erase block (default 128 KiB; the rig uses 64 and 128 KiB);
 *   program_ns_per_byte  time a program takes per byte, slept once per write (default 0);
 *   erase_us             time an erase takes per erase block, slept once per erase
 *                        (default 0).
 *
 * The two times can be changed while the flash is up, through
 * /sys/module/rig_nor/parameters/ (a scenario programs its image at full speed, then times
 * the tool). They sleep (usleep_range) instead of spinning, so a timed flash costs the emulated
 * CPU nothing. The flash reads 0xFF after loading; unloading frees it.
 *
 * What the chip did is counted in erased_blocks and programmed_bytes (writing 0 to either
 * starts it again), for comparing a writer's work with what its result needs.
 */
#include <linux/delay.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mutex.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

static unsigned long flash_size = 8 * 1024 * 1024;
module_param_named(size, flash_size, ulong, 0444);
MODULE_PARM_DESC(size, "flash size in bytes (default 8 MiB)");

static unsigned int erase_size = 128 * 1024;
module_param(erase_size, uint, 0444);
MODULE_PARM_DESC(erase_size, "erase block size in bytes (default 128 KiB)");

static unsigned int program_ns_per_byte;
module_param(program_ns_per_byte, uint, 0644);
MODULE_PARM_DESC(program_ns_per_byte, "program time per byte in ns (default 0)");

static unsigned int erase_us;
module_param(erase_us, uint, 0644);
MODULE_PARM_DESC(erase_us, "erase time per erase block in us (default 0)");

static unsigned long erased_blocks;
module_param(erased_blocks, ulong, 0644);
MODULE_PARM_DESC(erased_blocks, "erase blocks erased so far");

static unsigned long programmed_bytes;
module_param(programmed_bytes, ulong, 0644);
MODULE_PARM_DESC(programmed_bytes, "bytes programmed so far");

static struct mtd_info nor;
static u8 *cells;
/* One operation at a time, as on a chip: UBI's background thread and a writer may meet. */
static DEFINE_MUTEX(busy);

/*
 * The chip's time, slept closely: fsleep() would allow a wake-up up to twice as late
 * (usleep_range(us, 2 * us)) or a jiffy or two late (msleep), and the rig times the tool
 * against the chip's own time.
 */
static void rig_nor_wait_us(u64 us)
{
	unsigned long t = min_t(u64, us, ULONG_MAX / 2);

	if (!t)
		return;
	if (t <= 10)
		udelay(t);
	else
		usleep_range(t, t + t / 256 + 10);
}

static int rig_nor_erase(struct mtd_info *mtd, struct erase_info *instr)
{
	u64 addr = instr->addr, len = instr->len;
	u32 rest;

	/* The core has checked that the range lies on the flash; a NOR chip erases whole blocks. */
	div_u64_rem(addr, mtd->erasesize, &rest);
	if (rest)
		return -EINVAL;
	div_u64_rem(len, mtd->erasesize, &rest);
	if (rest || !len || addr + len > mtd->size)
		return -EINVAL;
	mutex_lock(&busy);
	memset(cells + addr, 0xFF, len);
	erased_blocks += div_u64(len, mtd->erasesize);
	rig_nor_wait_us((u64)READ_ONCE(erase_us) * div_u64(len, mtd->erasesize));
	mutex_unlock(&busy);
	return 0;
}

static int rig_nor_read(struct mtd_info *mtd, loff_t from, size_t len, size_t *retlen, u_char *buf)
{
	if (from < 0 || from > mtd->size || len > mtd->size - from)
		return -EINVAL;
	mutex_lock(&busy);
	memcpy(buf, cells + from, len);
	mutex_unlock(&busy);
	*retlen = len;
	return 0;
}

static int rig_nor_write(struct mtd_info *mtd, loff_t to, size_t len, size_t *retlen,
			 const u_char *buf)
{
	size_t i, bad = len;

	if (to < 0 || to > mtd->size || len > mtd->size - to)
		return -EINVAL;
	mutex_lock(&busy);
	for (i = 0; i < len; i++) {
		u8 now = cells[to + i] & buf[i];

		cells[to + i] = now;
		/* The program check: what the cell reads now is what was asked for. */
		if (now != buf[i] && bad == len)
			bad = i;
	}
	programmed_bytes += len;
	rig_nor_wait_us(div_u64((u64)READ_ONCE(program_ns_per_byte) * len + 999, 1000));
	mutex_unlock(&busy);
	if (bad < len) {
		pr_warn_ratelimited("rig_nor: program at 0x%llx: 0x%02x asked, 0x%02x read back (not erased)\n",
				    (unsigned long long)(to + bad), buf[bad], cells[to + bad]);
		*retlen = bad;
		return -EIO;
	}
	*retlen = len;
	return 0;
}

static int __init rig_nor_init(void)
{
	int ret;

	if (!erase_size || !flash_size || flash_size % erase_size) {
		pr_err("rig_nor: size %lu is not a whole number of erase blocks of %u bytes\n", flash_size,
		       erase_size);
		return -EINVAL;
	}
	cells = vmalloc(flash_size);
	if (!cells)
		return -ENOMEM;
	memset(cells, 0xFF, flash_size);

	nor.name = "rig_nor";
	nor.type = MTD_NORFLASH;
	nor.flags = MTD_CAP_NORFLASH;
	nor.size = flash_size;
	nor.erasesize = erase_size;
	nor.writesize = 1;
	nor.writebufsize = 64; /* a CFI chip's write buffer */
	nor.owner = THIS_MODULE;
	nor._erase = rig_nor_erase;
	nor._read = rig_nor_read;
	nor._write = rig_nor_write;
	ret = mtd_device_register(&nor, NULL, 0);
	if (ret) {
		vfree(cells);
		return ret;
	}
	pr_info("rig_nor: %lu bytes, %u-byte erase blocks, %u ns per byte programmed, %u us per block erased\n",
		flash_size, erase_size, program_ns_per_byte, erase_us);
	return 0;
}

static void __exit rig_nor_exit(void)
{
	WARN_ON(mtd_device_unregister(&nor));
	vfree(cells);
}

module_init(rig_nor_init);
module_exit(rig_nor_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Test equipment: a NOR flash in RAM for the virtual router");
