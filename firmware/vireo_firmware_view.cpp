// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_view.h"

#include "common/vireo_file.h"

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// The view whose mapping a SIGBUS can hit (a command holds one file at a time), the page
// size, and whether a read found the file cut short.
vireo_file_view *held = nullptr;
uintptr_t page_size = 4096;
volatile sig_atomic_t cut_short = 0;
struct sigaction previous_action;

// A read of the mapping past the end of a file that shrank: zeros from the faulting page to
// the end of the mapping, and the read goes on. Any other SIGBUS does what it did before.
void on_sigbus(int, siginfo_t *info, void *)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(info->si_addr);
    const uintptr_t start = reinterpret_cast<uintptr_t>(held ? held->data : nullptr);
    if (held && at >= start && at < start + held->mapped) {
        const uintptr_t page = at & ~(page_size - 1);
        if (mmap(reinterpret_cast<void *>(page), start + held->mapped - page, PROT_READ,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
            cut_short = 1;
            return;
        }
    }
    sigaction(SIGBUS, &previous_action, nullptr);
}

} // namespace

vireo_file_view::~vireo_file_view()
{
    if (sealed)
        vireo_seals_disarm();
    if (held == this) {
        sigaction(SIGBUS, &previous_action, nullptr);
        held = nullptr;
    }
    if (data)
        munmap(const_cast<uint8_t *>(data), mapped);
    if (fd >= 0)
        close(fd);
}

int32_t vireo_file_view_open(const vireo_trace_site &site, const char *path, vireo_view_mode mode,
                             bool seal, vireo_file_view *view)
{
    const int32_t size = vireo_file_get_size(path);
    if (size < 1) {
        vireo_trace_at(site, "Failed to get file size, file='%s'\n", path);
        return -1;
    }
    // A raw-flash command opens the file for writing as well, as the file must allow; no
    // command ever writes it: the mapping is read-only, and a stray write faults.
    view->fd = open(path, mode == VIREO_VIEW_RAW ? O_RDWR : O_RDONLY);
    if (view->fd < 0) {
        vireo_trace_at(site,
                       mode == VIREO_VIEW_RAW ? "Failed to open file '%s'\n"
                                              : "Failed to read file '%s'\n",
                       path);
        return -1;
    }
    page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    // Prefaulted: the file is read (or, in tmpfs, its pages mapped) at once, not page by page.
    void *data =
        mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED | MAP_POPULATE, view->fd, 0);
    if (data == MAP_FAILED) {
        if (mode == VIREO_VIEW_RAW)
            vireo_trace_at(site, "Failed to mmap file '%s'\n", path);
        else
            vireo_trace_at(site, "Failed to alloc %d bytes memory\n", size);
        return -1;
    }
    view->data = static_cast<const uint8_t *>(data);
    view->size = static_cast<uint32_t>(size);
    view->mapped = (static_cast<size_t>(size) + page_size - 1) & ~(page_size - 1);
    view->path = path;
    struct sigaction action = {};
    action.sa_sigaction = on_sigbus;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    cut_short = 0;
    held = view;
    sigaction(SIGBUS, &action, &previous_action);
    if (seal) {
        if (vireo_seals_init(&view->seals, view->data, view->size) != 0)
            return -1;
        view->sealed = true;
        vireo_seals_arm(&view->seals);
    }
    return 0;
}

bool vireo_file_view_intact(const vireo_trace_site &site, const vireo_file_view &view)
{
    // A cut inside the last page faults no read (the page reads zeros behind the end), so
    // the file's size is asked as well.
    struct stat st;
    if (!cut_short && (fstat(view.fd, &st) != 0 || st.st_size >= view.size))
        return true;
    vireo_trace_at(site, "firmware file '%s' was cut short while it was read.\n", view.path);
    return false;
}
