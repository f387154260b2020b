// vireo_uci_probe IDS ROOT...: for each ROOT, loads ROOT/etc/profile.d/profile with the uci
// library this program is linked with (libuci, or our own reader) and prints what it read,
// then asks the settings code about each special id listed in the file IDS (one a line).
// Two builds of it, given the same files, must print the same.
#include "common/vireo_platform.h"
#include "common/vireo_uci.h"
#include "ubi/vireo_ubi.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

// The text in double quotes, with C escapes for quotes, backslashes and other bytes.
static std::string quoted(const char *text)
{
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; p++) {
        char c[8];
        snprintf(c, sizeof(c),
                 *p == '"' || *p == '\\' ? "\\%c"
                 : *p < 32 || *p > 126   ? "\\x%02x"
                                         : "%c",
                 *p);
        out += c;
    }
    return out + "\"";
}

// Every section and option, each also looked up by its name.
static void dump_package(const std::string &path)
{
    uci_context *ctx = uci_alloc_context();
    uci_package *pkg = nullptr;
    const int rc = uci_load(ctx, path.c_str(), &pkg);
    printf("load %s\n", rc == UCI_OK ? "ok" : "fail");
    uci_element *se, *oe, *item, *found;
    if (rc == UCI_OK && pkg) {
        uci_foreach_element(&pkg->sections, se)
        {
            uci_section *s = uci_to_section(se);
            printf("section %s type %s%s\n", quoted(se->name).c_str(), quoted(s->type).c_str(),
                   s->anonymous ? " anonymous" : "");
            if (uci_lookup_next(ctx, &found, &pkg->sections, se->name) != UCI_OK || found != se)
                printf("  lookup of the section fails\n");
            uci_foreach_element(&s->options, oe)
            {
                uci_option *o = uci_to_option(oe);
                printf("  %s %s%s", o->type == UCI_TYPE_STRING ? "option" : "list",
                       quoted(oe->name).c_str(),
                       uci_lookup_option(ctx, s, oe->name) == o ? "" : " (lookup fails)");
                if (o->type == UCI_TYPE_STRING)
                    printf(" = %s", quoted(o->v.string).c_str());
                else
                    uci_foreach_element(&o->v.list, item) printf(" %s", quoted(item->name).c_str());
                printf("\n");
            }
        }
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s IDS ROOT...\n", argv[0]);
        return 2;
    }
    std::vector<std::string> ids;
    std::ifstream in(argv[1]);
    for (std::string line; std::getline(in, line);)
        ids.push_back(line);
    for (int i = 2; i < argc; i++) {
        printf("== %s\n", argv[i]);
        vireo_platform_set_root(argv[i]);
        char path[4096];
        vireo_platform_path(path, sizeof(path), "%s", VIREO_UCI_PROFILE);
        dump_package(path);
        for (const std::string &id : ids) {
            fflush(stdout);
            const int32_t answer = vireo_firmware_check_upgradable_special_id(id.c_str());
            printf("id %s %d\n", quoted(id.c_str()).c_str(), answer);
        }
    }
    return 0;
}
