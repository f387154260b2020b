// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_extra_para.h"

#include "common/vireo_common.h"

#include <cstring>

static const char VIREO_MODULE[] = "vireo_extra_para";

// Copies a flag text; a text of 16 characters or more fails without a trace.
static bool copy_flag(const char *text, char *dst)
{
    const size_t len = strlen(text);
    if (len >= EXTRA_PARA_TEXT_LEN)
        return false;
    memcpy(dst, text, len + 1);
    return true;
}

// A required flag member; word is how the messages name it.
static bool required_flag(const cJSON *root, const char *key, const char *word, char *dst)
{
    const char *text = nullptr;
    switch (vireo_json_string_member(root, key, &text)) {
    case VIREO_MEMBER_ABSENT:
        VIREO_TRACE("ptn json '%s' not found.\n", word);
        return false;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("ptn json '%s' must be String type.\n", word);
        return false;
    case VIREO_MEMBER_OK:
        break;
    }
    return copy_flag(text, dst);
}

int32_t vireo_extra_para_table_json_parse(const cJSON *json_root, extra_para_table *table)
{
    VIREO_ASSERT(json_root);
    VIREO_ASSERT(table);
    memset(table, 0, sizeof(*table));
    VIREO_PROGRESS();
    if (!required_flag(json_root, "dbootFlag", "dboot", table->dboot_flag))
        return -1;
    VIREO_PROGRESS();
    if (!required_flag(json_root, "integerFlag", "intger", table->integer_flag))
        return -1;
    VIREO_PROGRESS();
    const char *text = nullptr;
    switch (vireo_json_string_member(json_root, "fwFlag", &text)) {
    case VIREO_MEMBER_ABSENT:
        break;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("ptn json 'fwFlag' must be String type.\n");
        return -1;
    case VIREO_MEMBER_OK:
        if (!copy_flag(text, table->fw_flag))
            return -1;
        break;
    }
    VIREO_PROGRESS();
    const cJSON *score = cJSON_GetObjectItem(json_root, "score");
    if (score) {
        if (!cJSON_IsNumber(score)) {
            VIREO_TRACE("ptn json 'score' must be Number type.\n");
            return -1;
        }
        table->score = score->valueint;
    }
    vireo_extra_para_table_dump(table);
    return 0;
}

extra_para_table *vireo_extra_para_table_build(const cJSON *json_root)
{
    VIREO_ASSERT(json_root);
    VIREO_PROGRESS();
    extra_para_table *record =
        vireo_record_build(VIREO_SITE(), json_root, vireo_extra_para_table_json_parse,
                           "Failed to parse json -> extra para table struct.\n");
    return record;
}

extra_para_table *vireo_extra_para_table_build_by_json_data(const char *data, int32_t len)
{
    VIREO_PROGRESS();
    return vireo_record_build_by_text(VIREO_SITE(), data, len, vireo_extra_para_table_build);
}

void vireo_extra_para_table_destroy(extra_para_table *table)
{
    free(table);
}

void vireo_extra_para_table_dump(const extra_para_table *table)
{
    VIREO_ASSERT(table);
    vireo_print_line('-', 104);
    printf("%s:%s\n", table->dboot_label, table->dboot_flag);
    printf("%s:%s\n", table->integer_label, table->integer_flag);
    printf("%s:%s\n", table->fw_label, table->fw_flag);
    printf("%s:%d\n", table->score_label, table->score);
    vireo_print_line('-', 104);
}

int32_t vireo_extra_para_format_flag_off(int32_t score, char *buf, size_t size)
{
    return snprintf(buf, size,
                    "{\"dbootFlag\":\"0\",\"integerFlag\":\"0\",\"fwFlag\":\"BAD\",\"score\":%d}",
                    score);
}

int32_t vireo_extra_para_format_flag_on(int32_t score, char *buf, size_t size)
{
    return snprintf(buf, size,
                    "{\"dbootFlag\":\"1\",\"integerFlag\":\"1\",\"fwFlag\":\"GOOD\",\"score\":%d}",
                    score);
}
