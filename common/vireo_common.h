// SPDX-License-Identifier: Apache-2.0
// Trace facility, JSON helpers and partition-name check shared by every module.
#pragma once

#include <cJSON.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// Each source file defines its module name before using VIREO_TRACE:
//   static const char VIREO_MODULE[] = "vireo_ptn";
void vireo_trace(const char *module, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#define VIREO_TRACE(...) vireo_trace(VIREO_MODULE, __LINE__, __func__, __VA_ARGS__)

// Where a trace is reported from. A shared helper that traces on its caller's behalf
// takes the caller's site, so the line names the caller's module and function.
struct vireo_trace_site {
    const char *module;
    const char *func;
    int line;
};
#define VIREO_SITE() (vireo_trace_site{VIREO_MODULE, __func__, __LINE__})
void vireo_trace_at(const vireo_trace_site &site, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

// While one lives nothing reaches standard output, neither trace lines nor the dumps of
// the record readers: records read for the report alone must not change what a command
// prints.
struct vireo_trace_mute {
    vireo_trace_mute();
    ~vireo_trace_mute();
    vireo_trace_mute(const vireo_trace_mute &) = delete;
    vireo_trace_mute &operator=(const vireo_trace_mute &) = delete;
    int saved = -1; // standard output while it points elsewhere
};

// Progress mark used next to trace lines by the boot-flag records.
#define VIREO_PROGRESS() printf("[%s]%d\n", __func__, __LINE__)

// A null object where one is required is a programming error; unlike assert()
// this stays active in release builds.
[[noreturn]] void vireo_assert_fail(const char *what, const char *file, int line);
#define VIREO_ASSERT(expr)                                                                         \
    do {                                                                                           \
        if (!(expr))                                                                               \
            vireo_assert_fail(#expr, __FILE__, __LINE__);                                          \
    } while (0)

// Copies len bytes (need not be terminated), parses them; caller owns the tree.
cJSON *vireo_parse_json_data(const char *data, int32_t len);

// 1 if every character is one of a-z A-Z 0-9 - _ . (the empty name included), else 0.
int viero_ptn_name_validate(const char *name);

// Hexadecimal text as strtol(base 16) reads it, low 32 bits kept.
uint32_t vireo_hex_to_u32(const char *text);

// How a member of a JSON object was found.
enum vireo_json_member { VIREO_MEMBER_OK = 0, VIREO_MEMBER_ABSENT, VIREO_MEMBER_NOT_STRING };

// Looks up a string member (case-insensitive key); *out is set only when OK.
vireo_json_member vireo_json_string_member(const cJSON *obj, const char *key, const char **out);

// Copies the string member key of obj into dst, a field of size bytes with its NUL.
// 0 on success; -1 (traced) when the member is absent, not a string or longer than
// size - 1 characters: a text that does not fit is rejected, never cut. With fallback
// given, an absent member stores the fallback instead.
int32_t vireo_json_copy_text(const cJSON *obj, const char *key, char *dst, size_t size,
                             const char *fallback = nullptr);

using cjson_ptr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// printf into a new string (empty when formatting fails).
std::string vireo_strf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Prints c n times and a newline (separator lines of dumps).
void vireo_print_line(char c, int n);

// The shape every record builder shares: a zeroed record on the heap, filled by parse from
// a tree; parse_failed is traced (at the caller's site) when the parse fails.
template <typename T>
T *vireo_record_build(const vireo_trace_site &site, const cJSON *root,
                      int32_t (*parse)(const cJSON *, T *), const char *parse_failed)
{
    T *record = static_cast<T *>(calloc(1, sizeof(T)));
    if (!record) {
        vireo_trace_at(site, "failed to alloc %d bytes.\n", static_cast<int>(sizeof(T)));
        return nullptr;
    }
    if (parse(root, record) != 0) {
        vireo_trace_at(site, "%s", parse_failed);
        free(record);
        return nullptr;
    }
    return record;
}

// Text to tree to record by build; the tree is always deleted.
template <typename T>
T *vireo_record_build_by_text(const vireo_trace_site &site, const char *data, int32_t len,
                              T *(*build)(const cJSON *))
{
    cjson_ptr root(vireo_parse_json_data(data, len), cJSON_Delete);
    if (!root) {
        vireo_trace_at(site, "Failed to parse json.\n");
        return nullptr;
    }
    T *record = build(root.get());
    if (!record)
        vireo_trace_at(site, "Failed to parse json.\n");
    return record;
}
