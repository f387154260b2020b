// vireo_uci_probe FILE: loads FILE with the uci library this program is linked with (libuci,
// or our own reader) and prints what it read: every section, and every option, each also
// looked up by its name. Two builds of it, given the same file, must print the same.
#include "common/vireo_uci.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    uci_context *ctx = uci_alloc_context();
    uci_package *pkg = nullptr;
    const int rc = uci_load(ctx, argv[1], &pkg);
    printf("load %s\n", rc == UCI_OK ? "ok" : "fail");
    uci_element *se, *oe, *item;
    if (rc == UCI_OK && pkg) {
        // Names and values in brackets, so that spaces and line ends show.
        uci_foreach_element(&pkg->sections, se)
        {
            uci_section *s = uci_to_section(se);
            printf("section [%s] type [%s]%s\n", se->name, s->type,
                   s->anonymous ? " anonymous" : "");
            uci_foreach_element(&s->options, oe)
            {
                uci_option *o = uci_to_option(oe);
                printf("  %s [%s]%s", o->type == UCI_TYPE_STRING ? "option" : "list", oe->name,
                       uci_lookup_option(ctx, s, oe->name) == o ? "" : " (lookup fails)");
                if (o->type == UCI_TYPE_STRING)
                    printf(" = [%s]", o->v.string);
                else
                    uci_foreach_element(&o->v.list, item) printf(" [%s]", item->name);
                printf("\n");
            }
        }
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);
    return 0;
}
