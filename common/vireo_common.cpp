// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_common.h"

#include "common/vireo_report.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

static const char VIREO_MODULE[] = "vireo_common";

static int trace_muted = 0;

vireo_trace_mute::vireo_trace_mute()
{
    if (trace_muted++ > 0)
        return;
    fflush(stdout);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    saved = null < 0 ? -1 : fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (saved >= 0 && dup2(null, STDOUT_FILENO) < 0) {
        close(saved);
        saved = -1;
    }
    if (null >= 0)
        close(null);
}

vireo_trace_mute::~vireo_trace_mute()
{
    trace_muted--;
    if (saved < 0)
        return;
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

static void trace_v(const char *module, int line, const char *func, const char *fmt, va_list ap)
{
    if (trace_muted)
        return;
    if (vireo_report_on()) {
        va_list copy;
        va_copy(copy, ap);
        vireo_report_trace(fmt, copy);
        va_end(copy);
    }
    printf("%s:%d: [TRACE]%s() | ", module, line, func);
    vprintf(fmt, ap);
}

void vireo_trace(const char *module, int line, const char *func, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    trace_v(module, line, func, fmt, ap);
    va_end(ap);
}

void vireo_trace_at(const vireo_trace_site &site, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    trace_v(site.module, site.line, site.func, fmt, ap);
    va_end(ap);
}

std::string vireo_strf(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n < 0)
        return {};
    std::string out(static_cast<size_t>(n) + 1, '\0');
    va_start(ap, fmt);
    vsnprintf(&out[0], out.size(), fmt, ap);
    va_end(ap);
    out.resize(static_cast<size_t>(n));
    return out;
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

int32_t vireo_json_copy_text(const cJSON *obj, const char *key, char *dst, size_t size,
                             const char *fallback)
{
    const char *text = nullptr;
    switch (vireo_json_string_member(obj, key, &text)) {
    case VIREO_MEMBER_ABSENT:
        if (fallback) {
            text = fallback;
            break;
        }
        VIREO_TRACE("json '%s' not found.\n", key);
        return -1;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("json '%s' must be String type.\n", key);
        return -1;
    case VIREO_MEMBER_OK:
        break;
    }
    const size_t len = strlen(text);
    if (len >= size) {
        VIREO_TRACE("json '%s' string len too long, '%s', %d/%d\n", key, text,
                    static_cast<int>(len), static_cast<int>(size));
        return -1;
    }
    memcpy(dst, text, len + 1);
    return 0;
}

void vireo_print_line(char c, int n)
{
    for (int i = 0; i < n; i++)
        putchar(c);
    putchar('\n');
}
