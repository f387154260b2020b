// The settings reader: the input is /etc/profile.d/profile of a fake root (a link to the
// input's file). The special-id
// test reads it as the UBI check does; then it is loaded whole and every section, option
// and list item visited.
#include "fuzz_util.h"

#include "common/vireo_uci.h"
#include "fake_root.h"
#include "ubi/vireo_ubi.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

static fuzz_file *profile;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    static fake_root tree;
    static fuzz_file file("profile");
    profile = &file;
    tree.write("etc/profile.d/.keep", "");
    if (symlink(file.path.c_str(), tree.at("/etc/profile.d/profile").c_str()) != 0)
        abort();
    return 0;
}

// Every element's name is read; each option knows its section and is found by its name.
static void visit(uci_context *ctx, uci_package *pkg)
{
    uci_element *s, *o, *item;
    uci_foreach_element(&pkg->sections, s)
    {
        uci_section *section = uci_to_section(s);
        if (strlen(s->name) + strlen(section->type) == 0 || section->package != pkg)
            abort();
        uci_foreach_element(&section->options, o)
        {
            uci_option *option = uci_to_option(o);
            if (option->section != section || uci_lookup_option(ctx, section, o->name) != option)
                abort();
            if (option->type == UCI_TYPE_STRING) {
                if (!option->v.string)
                    abort();
                continue;
            }
            uci_foreach_element(&option->v.list, item)
            {
                if (!item->name)
                    abort();
            }
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    profile->write(data, size);
    vireo_firmware_check_upgradable_special_id("55530000");
    uci_context *ctx = uci_alloc_context();
    uci_package *pkg = nullptr;
    if (uci_load(ctx, profile->path.c_str(), &pkg) == UCI_OK)
        visit(ctx, pkg);
    uci_free_context(ctx);
    return 0;
}
