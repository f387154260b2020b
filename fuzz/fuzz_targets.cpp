// SPDX-License-Identifier: Apache-2.0
// The libFuzzer targets, one per parser of outside bytes. This file is built once per
// target: VIREO_FUZZ_TARGET names the one whose function receives the inputs.
#include "common/vireo_common.h"
#include "common/vireo_endian.h"
#include "common/vireo_uci.h"
#include "crypto/vireo_rsa.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_integrity.h"
#include "firmware/vireo_firmware_journal.h"
#include "firmware/vireo_firmware_keyring.h"
#include "firmware/vireo_prehash_lane.h"
#include "firmware/vireo_firmware_records.h"
#include "firmware/vireo_firmware_seal.h"
#include "firmware/vireo_firmware_walk.h"
#include "journal_fixture.h"
#include "main/vireo_firmware_upgrade_main.h"
#include "pack_fixture.h"
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_record.h"
#include "raw_device.h"
#include "ubi/vireo_ubi.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

static const char VIREO_MODULE[] = "fuzz";

namespace
{

// A file in memory holding the input, for a reader that takes a path (the same path for
// every input).
std::string input_file(const uint8_t *data, size_t size)
{
    static const int fd = memfd_create("vireo_fuzz_input", 0);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    return "/proc/self/fd/" + std::to_string(fd);
}

// Reads every record the image carries, then refuses it so that the walk goes on.
bool read_and_refuse(const firmware_header *, up_ptn_table *table, const vireo_payload &payload)
{
    vireo_firmware_up_ptn_table_dump(table);
    vireo_firmware_up_ptn_table_has_ubi(table);
    vireo_ptn_support_list_destroy(vireo_firmware_build_support_list(table, payload));
    vireo_ptn_firmware_info_destroy(vireo_firmware_build_firmware_info(table, payload));
    if (ptn_table *ptns = vireo_firmware_get_ptn_table(table, payload))
        vireo_ptn_destroy(ptns);
    return false;
}

// The Ed25519 signature block as a build that requires it reads it: parsed, and verified
// against the built-in ring over the file's prehash, taken through the prehash lane.
void read_signature_block(const uint8_t *file, uint32_t len)
{
    vireo_prehash_lane lane;
    if (vireo_prehash_lane_start(&lane, file, -1, len) != 0)
        abort();
    const uint8_t *chunk = nullptr;
    while (vireo_prehash_lane_next(&lane, &chunk) > 0) {
    }
    uint8_t prehash[SIGBLOCK_PREHASH_SIZE];
    vireo_prehash_lane_finish(&lane, prehash);
    vireo_signature_block_check(VIREO_SITE(), file, len, prehash);
}

// The firmware header and the walk over the chain of images of a whole file, and the
// signature block. Input: a control byte, then the file. Control & 7 == 0 keeps the
// signature test (otherwise the structure alone is checked, as after -m); control & 8 walks
// through sealed copies as the raw-flash upgrade does.
void fuzz_chain(const uint8_t *data, size_t size)
{
    if (size < 2 || size > INT32_MAX)
        return;
    digest_from_image = (data[0] & 7) == 0;
    const uint8_t *file = data + 1;
    const uint32_t len = static_cast<uint32_t>(size - 1);
    read_signature_block(file, len);
    firmware_header header;
    vireo_firmware_header_parse(file, static_cast<int32_t>(len), &header, 0);
    vireo_seals seals;
    const bool sealed = data[0] & 8;
    if (sealed) {
        if (vireo_seals_init(&seals, file, len) != 0)
            abort();
        vireo_seals_arm(&seals);
    }
    vireo_walk_result found;
    const int32_t r = vireo_firmware_walk(VIREO_SITE(), file, len, "refused\n", read_and_refuse,
                                          &found, sealed ? &seals : nullptr);
    vireo_seals_disarm();
    if (r == 0)
        abort(); // every image was refused
}

// The up-ptn-table region of an image: the input is the region's bytes (the rest of the
// 64 KiB is zero), behind a header and before an 8 KiB payload; every entry the table
// lists is then read from the payload, directly and through sealed copies.
void fuzz_up_ptn_table(const uint8_t *data, size_t size)
{
    if (size > UP_PTN_TABLE_SIZE)
        return;
    const uint32_t total = FIRMWARE_MIN_SIZE + 8192;
    std::vector<uint8_t> file(total, 0);
    vireo_put_be32(&file[32], FIRMWARE_HEADER_SIZE); // header_len
    vireo_put_be32(&file[36], total);                // total_len
    memcpy(&file[FIRMWARE_HEADER_SIZE], data, size);
    for (uint32_t i = FIRMWARE_MIN_SIZE; i < total; i++)
        file[i] = static_cast<uint8_t>(i * 7);
    firmware_header header;
    vireo_firmware_header_decode(file.data(), &header);
    std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)> table(
        vireo_firmware_up_ptn_table_build_by_fimware(file.data(), total, &header),
        vireo_firmware_up_ptn_table_destroy);
    if (!table)
        return;
    vireo_firmware_up_ptn_table_dump(table.get());
    vireo_payload payload{};
    vireo_seals seals;
    if (vireo_firmware_payload(file.data(), total, 0, &header, &payload) != 0 ||
        vireo_seals_init(&seals, file.data(), total) != 0)
        abort(); // the payload lies inside the file by construction
    vireo_seals_complete(&seals);
    for (uint32_t i = 0; i < table->ptn_cnt; i++) {
        const up_ptn_info *entry = &table->ptns[i];
        vireo_content plain, sealed;
        payload.seals = nullptr;
        const int32_t r = vireo_payload_read(payload, entry, &plain);
        payload.seals = &seals;
        // Both ways must agree on where the content lies and what it holds.
        if (r != vireo_payload_read(payload, entry, &sealed) ||
            (r == 0 && entry->size && memcmp(plain.data, sealed.data, entry->size) != 0))
            abort();
    }
}

// A partition table that parsed must come back unchanged from its own JSON form.
void check_table(ptn_table *table)
{
    if (!table)
        return;
    vireo_ptn_dump(table);
    cjson_ptr json(vireo_ptn_build_json(table), cJSON_Delete);
    char *text = json ? cJSON_PrintUnformatted(json.get()) : nullptr;
    ptn_table *again =
        text ? vireo_ptn_build_by_json_data(text, static_cast<int32_t>(strlen(text))) : nullptr;
    if (!again || memcmp(again, table, sizeof(*table)) != 0)
        abort();
    cJSON_free(text);
    vireo_ptn_destroy(again);
    vireo_ptn_destroy(table);
}

// The record documents behind their content headers: the input is a partition's bytes,
// and its content goes to each record parser (partition table, device info, support list,
// firmware info, extra parameters). The partition table is also read as an image carries
// it, where a header counts only when it accounts for every byte.
void fuzz_records(const uint8_t *data, size_t size)
{
    if (size > INT32_MAX)
        return;
    const int32_t len = static_cast<int32_t>(size);
    up_ptn_table image{};
    image.ptn_cnt = 1;
    strcpy(image.ptns[0].name, "partition-table");
    image.ptns[0].size = static_cast<uint32_t>(len);
    const vireo_payload payload{data, static_cast<uint32_t>(len), 0, static_cast<uint32_t>(len)};
    check_table(vireo_firmware_get_ptn_table(&image, payload));

    int32_t offset = 0, length = 0;
    if (vireo_record_locate(VIREO_SITE(), data, len, vireo_record_words(), &offset, &length) != 0)
        return;
    const char *text = reinterpret_cast<const char *>(data) + offset;
    check_table(vireo_ptn_build_by_json_data(text, length));
    if (devinfo *info = vireo_ptn_device_info_build_by_json_data(text, length)) {
        vireo_ptn_device_info_dump(info);
        vireo_ptn_device_info_destroy(info);
    }
    if (support_list *list = vireo_ptn_support_list_build_by_json_data(text, length)) {
        vireo_ptn_support_list_dump(list);
        vireo_ptn_support_list_destroy(list);
    }
    if (fwinfo *info = vireo_ptn_firmware_info_build_by_json_data(text, length)) {
        vireo_ptn_firmware_info_dump(info);
        vireo_ptn_firmware_info_destroy(info);
    }
    vireo_extra_para_table_destroy(vireo_extra_para_table_build_by_json_data(text, length));
}

// A version text that reads must read the same again once printed in the record's format.
bool read_version(const std::string &text, fwinfo *info)
{
    uint32_t v[5], again[5];
    if (vireo_ptn_get_firmware_info_software_version(text.c_str(), v) != 0)
        return false;
    const std::string printed =
        vireo_strf("%u.%u.%u Build %u Rel.%05u", v[0], v[1], v[2], v[3], v[4]);
    if (vireo_ptn_get_firmware_info_software_version(printed.c_str(), again) != 0 ||
        memcmp(v, again, sizeof(v)) != 0)
        abort();
    memcpy(info->software_version, v, sizeof(info->software_version));
    memcpy(info->build_timestamp, v + 3, sizeof(info->build_timestamp));
    return true;
}

// The version text of a firmware-info record, and the version test between two of them.
// Input: the installed version's text, a NUL, the offered version's text.
void fuzz_version(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t nul = input.find('\0');
    fwinfo installed{}, offered{};
    if (!read_version(input.substr(0, nul), &installed) || nul == std::string::npos ||
        !read_version(input.substr(nul + 1), &offered))
        return;
    const int32_t r = vireo_firmware_check_software_version(&installed, &offered);
    // The same build of 1.3.0 is marked, and only a passing image can be.
    if (same_software_version && (r != 0 || installed.software_version[0] != 1))
        abort();
}

// Every name is read; each section knows its package, each option its section, and each
// option is found by its name.
void visit(uci_context *ctx, uci_package *pkg)
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
            if (option->section != section || uci_lookup_option(ctx, section, o->name) != option ||
                (option->type == UCI_TYPE_STRING && !option->v.string))
                abort();
            if (option->type == UCI_TYPE_LIST)
                uci_foreach_element(&option->v.list, item)
                {
                    if (!item->name)
                        abort();
                }
        }
    }
}

// The settings reader: the input is /etc/profile.d/profile of a fake root (a link to the
// input's file). The special-id test reads it as the UBI check does; then it is loaded
// whole and every section, option and list item visited.
void fuzz_uci(const uint8_t *data, size_t size)
{
    const std::string path = input_file(data, size);
    static fake_root root;
    static const int linked = [&] {
        root.write("etc/profile.d/.keep", "");
        return symlink(path.c_str(), root.at("/etc/profile.d/profile").c_str());
    }();
    if (linked != 0)
        abort();
    vireo_firmware_check_upgradable_special_id("55530000");
    uci_context *ctx = uci_alloc_context();
    uci_package *pkg = nullptr;
    if (uci_load(ctx, path.c_str(), &pkg) == UCI_OK)
        visit(ctx, pkg);
    uci_free_context(ctx);
}

// The signature check with arbitrary signature and key bytes. Input: the 16-byte digest,
// the signature's length (2 bytes, little-endian), the signature, then the key, tried both
// as a key blob and as the base64 text of one. A signature that verifies must stop
// verifying when the digest changes.
void fuzz_rsa(const uint8_t *data, size_t size)
{
    if (size < 18 || size > 4096)
        return;
    uint8_t digest[16];
    memcpy(digest, data, 16);
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(data[16] | data[17] << 8, size - 18));
    const uint8_t *sig = data + 18;
    const uint8_t *key = sig + n;
    const uint32_t key_len = static_cast<uint32_t>(data + size - key);
    const std::string key_text(reinterpret_cast<const char *>(key), key_len);
    const auto verifies = [&] {
        return rsa_verify_blob(key, key_len, digest, 16, sig, n) | // both tried every time
               rsa_verify_base64_key(key_text.c_str(), key_len, digest, 16, sig, n);
    };
    if (!verifies())
        return;
    digest[0] ^= 1;
    if (verifies())
        abort();
}

// The whole -C command on a fake device, as the tool runs it from its command line. Input:
// a control byte, then the firmware file. Control & 7 == 0 keeps the signature test;
// otherwise -m (a digest file of the device) turns it off, as a mutated file never passes
// it, so that the file reaches the records.
void run_check(const std::string &digest, const uint8_t *data, size_t size, bool ubi)
{
    if (size < 1)
        return;
    std::vector<std::string> args = {"vireo_firmware_upgrade", "-C", "-u",
                                     input_file(data + 1, size - 1)};
    if (data[0] & 7)
        args.insert(args.end(), {"-m", digest});
    if (ubi)
        args.insert(args.end(), {"-w", "ubi"});
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    optind = 0; // a new command line for getopt
    vireo_firmware_upgrade_main(static_cast<int>(args.size()), argv.data());
}

void fuzz_check(const uint8_t *data, size_t size)
{
    static raw_device device(raw_device::layout(kDevice));
    static const std::string digest = device.write("digest", std::string(16, '\0'));
    run_check(digest, data, size, false);
}

// -w ubi on a dual-image UBI device whose settings accept a second special id.
void fuzz_check_ubi(const uint8_t *data, size_t size)
{
    static fake_root device;
    static const std::string digest = [] {
        device.write("sys/class/ubi/version", "1\n");
        device.ubi_volume(0, 0, "device-info", with_content_header(kDevice));
        device.ubi_volume(0, 1, "firmware-info",
                          with_content_header(fwinfo_json("1.3.0 Build 20261123 Rel.00001")));
        device.write("etc/profile.d/profile",
                     "config special_id_support_list\n\tlist special_id '45550000'\n");
        return device.write("digest", std::string(16, '\0'));
    }();
    run_check(digest, data, size, true);
}

// The journal reader as a retry runs it: the input is the start of the whole flash
// (/dev/mtd0 of a fake root, a plain file of 64 KiB blocks; 0xFF behind the input up to
// 256 KiB), in which a pending plan is looked for and, when one is found, finished as far as
// the flash allows. Input: a control byte, then the flash. Control & 1 gives a plan at the
// flash's start the check its writer gives it (over the bytes before its total length), so
// that mutations reach the fields behind the check.
void fuzz_journal(const uint8_t *data, size_t size)
{
    const size_t kFlash = 4 << 16;
    if (size < 1 || size - 1 > kFlash)
        return;
    std::string flash(reinterpret_cast<const char *>(data + 1), size - 1);
    if ((data[0] & 1) && flash.size() >= 24) {
        const uint32_t total = vireo_get_be32(reinterpret_cast<const uint8_t *>(&flash[12]));
        if (total >= 24 && total <= flash.size()) {
            const uint64_t check =
                plan_check(reinterpret_cast<const uint8_t *>(flash.data()), total - 8);
            vireo_put_be32(reinterpret_cast<uint8_t *>(&flash[total - 8]),
                           static_cast<uint32_t>(check >> 32));
            vireo_put_be32(reinterpret_cast<uint8_t *>(&flash[total - 4]),
                           static_cast<uint32_t>(check));
        }
    }
    flash.resize(kFlash, '\xff');
    static fake_root root;
    root.write("dev/mtd0", flash);
    vireo_journal_resume();
    // Whatever it finished, the flash keeps its size: nothing is written past it.
    if (root.bytes("/dev/mtd0").size() != kFlash)
        abort();
}

using target_fn = void (*)(const uint8_t *, size_t);
target_fn target;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    const std::pair<std::string, target_fn> targets[] = {
        {"chain", fuzz_chain},     {"up_ptn_table", fuzz_up_ptn_table},
        {"records", fuzz_records}, {"version", fuzz_version},
        {"uci", fuzz_uci},         {"rsa", fuzz_rsa},
        {"check", fuzz_check},     {"check_ubi", fuzz_check_ubi},
        {"journal", fuzz_journal}};
    for (const auto &[name, fn] : targets)
        if (name == VIREO_FUZZ_TARGET)
            target = fn;
    if (!target)
        abort();
    // The tool traces on standard output, libFuzzer reports on standard error. Set
    // VIREO_FUZZ_TRACE to see the traces while replaying a finding.
    if (!getenv("VIREO_FUZZ_TRACE")) {
        fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        if (null < 0 || dup2(null, STDOUT_FILENO) < 0)
            abort();
        close(null);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The state a run of the tool starts with: the integrity checks' and the version test's.
    reset_integrity_state();
    same_software_version = false;
    target(data, size);
    return 0;
}
