// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi_flags.h"

#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_header.h"
#include "ptn/vireo_ptn_record.h"

#include <cstring>
#include <memory>

static const char VIREO_MODULE[] = "vireo_ubi";

#define PRIMARY "extra-para"
#define BACKUP "extra-para.b"
#define PATH_LEN 1024

namespace
{

enum flag_read {
    FLAG_NO_SIZE,   // traced
    FLAG_NO_MEMORY, // traced
    FLAG_UNREAD,    // read, header or content position failed (traced); buffer kept
    FLAG_READ,      // content located; the score is set when the record parses
};

// The score of a record text, when it parses.
bool score_of(const char *text, int32_t len, int32_t *score)
{
    std::unique_ptr<extra_para_table, decltype(&vireo_extra_para_table_destroy)> table(
        vireo_extra_para_table_build_by_json_data(text, len), vireo_extra_para_table_destroy);
    if (table)
        *score = table->score;
    return table != nullptr;
}

// Sizes, reads and locates the record of the flag volume name at path. read_name is the
// name the read failure names ("extra-para" or "extra-para.b"). A record read for its score
// alone is read header first (VIREO_READ_CONTENT_BY_OFFSET); one to be written back, whole.
flag_read read_flag(const vireo_trace_site &site, const char *name, const char *path,
                    const char *read_name, vireo_read_kind kind, vireo_record *rec, int32_t *score,
                    bool *scored)
{
    *scored = false;
    const int32_t size = vireo_file_get_size(path);
    // A volume too small for a header and a record is as good as unsized.
    if (size <= PTN_HEADER_SIZE) {
        vireo_trace_at(site, "Failed to read size of [%s]\n", path);
        return FLAG_NO_SIZE;
    }
    vireo_record_words words;
    words.alloc_failed = vireo_strf("alloc %d bytes failed.[%s]\n", size, path);
    words.read_failed = vireo_strf("failed to read %s content.[%s]\n", read_name, path);
    words.invalid = vireo_strf("ubi volume[%s] is not a valid partition.[%s]\n", name, path);
    words.no_content = vireo_strf("failed to get extra-para content.[%s]\n", path);
    switch (vireo_record_read(site, path, size, kind, words, rec)) {
    case VIREO_RECORD_NO_MEMORY:
        return FLAG_NO_MEMORY;
    case VIREO_RECORD_FAILED:
        return FLAG_UNREAD;
    case VIREO_RECORD_OK:
        break;
    }
    *scored = score_of(rec->text(), rec->length, score);
    return FLAG_READ;
}

bool resolve(uint32_t ubi_num, const char *name, char *path)
{
    path[0] = '\0';
    return get_ptn_path_by_name(static_cast<int32_t>(ubi_num), name, path, PATH_LEN) > 0;
}

// Formats a flag document into rec's buffer behind a new header and writes the whole
// buffer to target; then reads target back and checks that it holds what was written.
// -1 when the flags did not read back as written.
int32_t write_flag(const vireo_trace_site &site, bool on, int32_t score, vireo_record *rec,
                   bool offset_ok, const char *target, bool ubi)
{
    const int32_t offset = offset_ok ? rec->offset : PTN_HEADER_SIZE;
    std::vector<uint8_t> &buf = rec->buf;
    char *text = reinterpret_cast<char *>(buf.data()) + offset;
    const size_t room = buf.size() - static_cast<size_t>(offset);
    const int32_t n = on ? vireo_extra_para_format_flag_on(score, text, room)
                         : vireo_extra_para_format_flag_off(score, text, room);
    if (n < 1)
        return 0;
    vireo_trace_at(site, on ? "new on extra:%s\n" : "new off extra:%s\n", text);
    // The record's length counts its terminating NUL.
    vireo_ptn_header_add(buf.data(), offset, buf.data() + offset, n + 1);
    const int32_t size = static_cast<int32_t>(buf.size());
    if (ubi) {
        uint32_t written = 0;
        vireo_ubi_write(target, buf.data(), size, &written);
    } else {
        vireo_file_write_by_offset(target, 0, buf.data(), size, nullptr);
    }
    // The result of the write is not examined; what the volume now holds is.
    vireo_record back;
    const vireo_record_words quiet;
    if (vireo_record_read(site, target, size, VIREO_READ_CONTENT_BY_OFFSET, quiet, &back) ==
            VIREO_RECORD_OK &&
        back.length == n + 1 && memcmp(back.text(), text, static_cast<size_t>(n)) == 0)
        return 0;
    vireo_trace_at(site, "flags of [%s] did not read back as written.\n", target);
    return -1;
}

} // namespace

int32_t vireo_firmware_get_score(uint32_t ubi_num, int32_t *primary, int32_t *backup)
{
    char path[PATH_LEN];
    vireo_record rec;
    int32_t score = 0;
    bool scored = false;
    resolve(ubi_num, PRIMARY, path);
    VIREO_TRACE("PTN[%s] volume path:%s\n\n", PRIMARY, path);
    if (path[0] &&
        read_flag(VIREO_SITE(), PRIMARY, path, PRIMARY, VIREO_READ_CONTENT_BY_OFFSET, &rec, &score,
                  &scored) == FLAG_READ &&
        scored)
        *primary = score;
    resolve(ubi_num, BACKUP, path);
    VIREO_TRACE("PTN[%s] volume path:%s\n\n", BACKUP, path);
    if (path[0] &&
        read_flag(VIREO_SITE(), BACKUP, path, BACKUP, VIREO_READ_CONTENT_BY_OFFSET, &rec, &score,
                  &scored) == FLAG_READ &&
        scored)
        *backup = score;
    return 0;
}

int32_t vireo_firmware_pre_update(uint32_t ubi_num)
{
    int32_t p = 0, b = 0;
    vireo_firmware_get_score(ubi_num, &p, &b);
    // The lower score is the target; the backup on a tie. Signed comparison.
    const char *name = p < b ? PRIMARY : BACKUP;
    char path[PATH_LEN];
    if (!resolve(ubi_num, name, path))
        return 0;
    const bool ubi = is_ubi_volume_path(path);
    vireo_record rec;
    int32_t score = 0;
    bool scored = false;
    const flag_read r =
        read_flag(VIREO_SITE(), name, path, PRIMARY, VIREO_READ_BY_OFFSET, &rec, &score, &scored);
    if (r == FLAG_NO_SIZE || r == FLAG_NO_MEMORY)
        return -1;
    return write_flag(VIREO_SITE(), false, p < b ? p : b, &rec, r == FLAG_READ, path, ubi);
}

int32_t vireo_firmware_post_update(uint32_t ubi_num)
{
    char path[PATH_LEN];
    vireo_record rec;
    int32_t p = 0, b = 0;
    bool scored = false;
    resolve(ubi_num, PRIMARY, path);
    VIREO_TRACE("PTN[%s] volume path:%s\n\n", PRIMARY, path);
    if (path[0])
        read_flag(VIREO_SITE(), PRIMARY, path, PRIMARY, VIREO_READ_CONTENT_BY_OFFSET, &rec, &p,
                  &scored);
    if (!resolve(ubi_num, BACKUP, path)) {
        VIREO_TRACE("PTN[%s] volume path:%s\n\n", BACKUP, path);
        return 0;
    }
    VIREO_TRACE("PTN[%s] volume path:%s\n\n", BACKUP, path);
    const bool ubi = is_ubi_volume_path(path);
    const flag_read r =
        read_flag(VIREO_SITE(), BACKUP, path, BACKUP, VIREO_READ_BY_OFFSET, &rec, &b, &scored);
    if (r == FLAG_NO_SIZE || r == FLAG_NO_MEMORY)
        return -1;
    if (!scored)
        b = 0;
    int32_t score = p + 1;
    // The primary is the target when it scores lower; it then takes the backup's bytes.
    if (p < b) {
        score = b + 1;
        // Not found leaves the backup's path in place, and the backup is written.
        get_ptn_path_by_name(static_cast<int32_t>(ubi_num), PRIMARY, path, PATH_LEN);
    }
    VIREO_TRACE("extra score: primary score[%d], backup score[%d]\n", p, score);
    return write_flag(VIREO_SITE(), true, score, &rec, r == FLAG_READ, path, ubi);
}

int32_t vireo_firmware_get_score_by_extra_para(uint32_t ubi_num, const char *name,
                                               vireo_flag_volume *volume)
{
    VIREO_ASSERT(name);
    VIREO_ASSERT(volume);
    if (!resolve(ubi_num, name, volume->path))
        return 0;
    vireo_record rec;
    bool scored = false;
    const flag_read r = read_flag(VIREO_SITE(), name, volume->path, PRIMARY, VIREO_READ_BY_OFFSET,
                                  &rec, &volume->score, &scored);
    volume->size = static_cast<int32_t>(rec.buf.size());
    volume->count = rec.count;
    volume->content_offset = rec.offset;
    volume->content_length = static_cast<uint32_t>(rec.length);
    volume->buffer = std::move(rec.buf);
    if (r != FLAG_READ)
        return -1;
    if (!scored)
        volume->score = 0;
    return 0;
}
