#include "common/vireo_common.h"

#include <cstdarg>
#include <cstring>
#include <vector>

static const char VIREO_MODULE[] = "vireo_common";

void vireo_trace(const char *module, int line, const char *func, const char *fmt, ...)
{
    printf("%s:%d: [TRACE]%s() | ", module, line, func);
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
}

void vireo_assert_fail(const char *what, const char *file, int line)
{
    fflush(stdout);
    fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, what);
    abort();
}

cJSON *vireo_parse_json_data(const char *data, int32_t len)
{
    if (len < 0 || (len > 0 && !data)) {
        VIREO_TRACE("Failed to parse <%p,%d>'\n", static_cast<const void *>(data), len);
        return nullptr;
    }
    std::vector<char> text;
    try {
        text.resize(static_cast<size_t>(len) + 1, '\0');
    } catch (...) {
        VIREO_TRACE("Faield to alloc %d bytes memory.\n", len + 1);
        return nullptr;
    }
    if (len > 0)
        memcpy(text.data(), data, static_cast<size_t>(len));
    VIREO_TRACE("json_data:%s\n\n", text.data());
    cJSON *root = cJSON_Parse(text.data());
    if (!root) {
        VIREO_TRACE("Failed to parse <%p,%d>'\n", static_cast<const void *>(data), len);
        return nullptr;
    }
    return root;
}

int viero_ptn_name_validate(const char *name)
{
    VIREO_ASSERT(name);
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p) {
        const unsigned char c = *p;
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
        if (!ok)
            return 0;
    }
    return 1;
}

uint32_t vireo_hex_to_u32(const char *text)
{
    return static_cast<uint32_t>(strtol(text, nullptr, 16));
}

vireo_json_member vireo_json_string_member(const cJSON *obj, const char *key, const char **out)
{
    const cJSON *item = cJSON_GetObjectItem(obj, key);
    if (!item)
        return VIREO_MEMBER_ABSENT;
    if (!cJSON_IsString(item) || !item->valuestring)
        return VIREO_MEMBER_NOT_STRING;
    *out = item->valuestring;
    return VIREO_MEMBER_OK;
}

void vireo_print_line(char c, int n)
{
    for (int i = 0; i < n; i++)
        putchar(c);
    putchar('\n');
}
