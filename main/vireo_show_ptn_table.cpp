// SPDX-License-Identifier: Apache-2.0
#include "main/vireo_firmware_upgrade_main.h"

#include "common/vireo_common.h"
#include "ptn/vireo_ptn.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

static const char VIREO_MODULE[] = "vireo_firmware_upgrade_main";

namespace
{

struct fd_closer {
    int fd;
    ~fd_closer()
    {
        if (fd >= 0)
            close(fd);
    }
};

// Prints the tree as formatted JSON, without adding a newline.
void print_json(const cJSON *tree)
{
    char *text = tree ? cJSON_Print(tree) : nullptr;
    printf("%s", text ? text : "(null)");
    cJSON_free(text);
}

} // namespace

void show_ptn_table(const char *path)
{
    // The messages name the document, whatever file holds it.
    const char *doc = "partition.json";
    fd_closer file{open(path, O_RDONLY)};
    if (file.fd < 0) {
        VIREO_TRACE("Failed to open '%s', errno=%d.\n", doc, errno);
        return;
    }
    const off_t end = lseek(file.fd, 0, SEEK_END);
    const int size = (end < 0 || end >= INT_MAX) ? -1 : static_cast<int>(end);
    VIREO_TRACE("json file size : %d .\n", size);
    std::vector<char> text;
    if (size >= 0) {
        try {
            text.assign(static_cast<size_t>(size) + 1, '\0');
        } catch (...) {
            text.clear();
        }
    }
    if (text.empty()) {
        VIREO_TRACE("alloc json_text failed, fsize=%d.\n", size + 1);
        return;
    }
    lseek(file.fd, 0, SEEK_SET);
    const ssize_t got = read(file.fd, text.data(), text.size());
    VIREO_TRACE("read() return %d.\n", static_cast<int>(got));
    // The buffer was zero-filled and is one byte longer than the file: always terminated.
    text.back() = '\0';

    cjson_ptr json_root(cJSON_Parse(text.data()), cJSON_Delete);
    if (!json_root) {
        VIREO_TRACE("Failed to parse '%s'\n", doc);
        return;
    }
    std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)> table(vireo_ptn_build(json_root.get()),
                                                                   vireo_ptn_destroy);
    if (!table) {
        VIREO_TRACE("Failed to build ptn table.\n");
        return;
    }
    vireo_ptn_dump(table.get());
    vireo_print_line('=', 41);

    cjson_ptr tmp(vireo_ptn_build_json(table.get()), cJSON_Delete);
    printf("json_root = %p\n", static_cast<void *>(json_root.get()));
    print_json(json_root.get());
    printf("tmp = %p\n", static_cast<void *>(tmp.get()));
    print_json(tmp.get());
    vireo_print_line('=', 41);
}
