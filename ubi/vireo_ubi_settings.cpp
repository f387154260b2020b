// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"
#include "common/vireo_platform.h"
#include "common/vireo_uci.h"

#include <cstring>
#include <memory>

static const char VIREO_MODULE[] = "vireo_ubi";

namespace
{

// Unloads the package (when loaded) and frees the context on every way out.
struct uci_session {
    uci_context *ctx = nullptr;
    uci_package *pkg = nullptr;
    ~uci_session()
    {
        if (pkg)
            uci_unload(ctx, pkg);
        if (ctx)
            uci_free_context(ctx);
    }
};

uci_section *first_section_of_type(uci_package *pkg, const char *type)
{
    uci_element *e;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        if (s->type && strcmp(s->type, type) == 0)
            return s;
    }
    return nullptr;
}

} // namespace

int32_t vireo_firmware_check_upgradable_special_id(const char *special_id)
{
    if (!special_id) {
        VIREO_TRACE("special_id is NULL.\n");
        return 0;
    }
    uci_session uci;
    uci.ctx = uci_alloc_context();
    if (!uci.ctx) {
        VIREO_TRACE("uci_alloc_context fail.\n");
        return 0;
    }
    char path[512];
    if (vireo_platform_path(path, sizeof(path), "%s", VIREO_UCI_PROFILE) < 0 ||
        uci_load(uci.ctx, path, &uci.pkg) != UCI_OK || !uci.pkg) {
        uci.pkg = nullptr;
        VIREO_TRACE("uci_load profile fail.\n");
        return 0;
    }
    uci_section *section = first_section_of_type(uci.pkg, "special_id_support_list");
    if (!section) {
        VIREO_TRACE("uci_lookup_section special_id_support_list fail.\n");
        return 0;
    }
    // Only a list counts; a plain option of that name is ignored.
    uci_option *option = uci_lookup_option(uci.ctx, section, "special_id");
    if (!option || option->type != UCI_TYPE_LIST)
        return 0;
    uci_element *item;
    uci_foreach_element(&option->v.list, item)
    {
        if (strcmp(item->name, special_id) == 0)
            return 1;
    }
    return 0;
}
