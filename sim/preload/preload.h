// SPDX-License-Identifier: Apache-2.0
/* A library preloaded into the tool by the tests, making a fake device tree behave as the
 * router's flash and UBI devices, and cutting the power at a chosen flash operation.
 * Settings come from the environment; what each part does is said in its own file:
 *  - preload_flash.c: "<VIREO_FLASH_ROOT>/dev/mtd<N>" files as NOR or NAND flash;
 *  - preload_ubi.c: "<VIREO_FLASH_ROOT>/dev/ubi<D>_<V>" files as UBI volumes;
 *  - preload_cut.c: the power cut (VIREO_CUT_AT);
 *  - preload_memory.c: the largest private memory seen (VIREO_ANON_LOG);
 *  - preload_io.c: the interposed calls, and the logs and failures shared by all. */
#pragma once

#define _GNU_SOURCE
#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>

/* The definitions this library stands in front of. */
ssize_t real_write(int fd, const void *buf, size_t count);
ssize_t real_pwrite(int fd, const void *buf, size_t count, off_t at);
ssize_t real_read(int fd, void *buf, size_t count);
ssize_t real_pread(int fd, void *buf, size_t count, off_t at);
int real_ioctl(int fd, unsigned long request, void *arg);

/* Whether item is one of the colon-separated items of the variable var. */
int listed(const char *var, const char *item);
unsigned long env_number(const char *var, unsigned long fallback);
/* Appends a formatted line to the file the variable var names, if it names one. */
void log_line(const char *var, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/* The path behind fd when it names a file of the file system (0 for a standard stream, a
 * pipe or a socket). */
int path_of(int fd, char *path, size_t size);
/* The part of path after "<VIREO_FLASH_ROOT>/dev/", or none when it is not in the fake tree. */
const char *fake_dev(const char *path);
/* Whether name is prefix followed by digits (and, with pair, an underscore and more
 * digits): "mtd3", "ubi0_5". */
int node_named(const char *name, const char *prefix, int pair);
/* Whether path is a flash node of any tree: ".../dev/mtd<N>", "mtdblock<N>", "ubi<D>_<V>". */
int flash_node(const char *path);

/* preload_flash.c */
int flash_file(const char *path);
ssize_t flash_program(int fd, const char *path, const unsigned char *buf, size_t count, off_t at);
int flash_ioctl(int fd, const char *path, unsigned long request, void *arg);
/* Copies what [at, at + count) of the MTD node at path holds into the other view of those
 * bytes (the whole flash, or the partitions it overlaps). */
void flash_mirror(const char *path, off_t at, size_t count);

/* preload_ubi.c */
int ubi_fake_volume(const char *path);
void ubi_fake_node(const char *path, struct stat *st);
int ubi_damaged(const char *path);
int ubi_update_start(int fd, const char *path, long long bytes);
int ubi_change_start(int fd, const char *path, const void *request);
ssize_t ubi_update_write(int fd, const char *path, const void *buf, size_t count);
void ubi_closed(int fd);

/* preload_cut.c */
enum { CUT_NONE = 0, CUT_AFTER, CUT_TEAR };
/* Counts a flash-changing operation; kills the process when it is the one to cut before.
 * CUT_AFTER: cut once it is done; CUT_TEAR (tearable writes only): cut once half is done. */
int cut_point(const char *kind, const char *what, int tearable);
void cut_now(void) __attribute__((noreturn));

/* preload_memory.c: notes the process's private memory now. */
void memory_sample(void);
