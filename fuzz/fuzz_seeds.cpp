// SPDX-License-Identifier: Apache-2.0
// vireo_fuzz_seeds DIR: writes the seed corpus of every fuzz target into DIR/<target>/,
// made at run time from firmware files that vireo_firmware_pack builds and from the
// documents the tests' fake devices hold.
#include "common/vireo_common.h"
#include "crypto/vireo_base64.h"
#include "crypto/vireo_md5.h"
#include "crypto/vireo_rsa.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "journal_fixture.h"
#include "pack_fixture.h"
#include "raw_device.h"

#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace
{

std::string out_dir;
int seeds = 0;

void seed(const std::string &target, const std::string &bytes)
{
    const std::string dir = out_dir + "/" + target;
    mkdir(dir.c_str(), 0755);
    write_file(dir + "/seed-" + std::to_string(seeds++), bytes);
}

std::string text(const std::vector<uint8_t> &v, size_t from, size_t len)
{
    return std::string(v.begin() + static_cast<long>(from),
                       v.begin() + static_cast<long>(from + len));
}

// The firmware files: one that fits the device of the check targets, a chain whose second
// image fits, one accepted through the settings' special ids, one carrying a "ubi"
// partition, two images sharing a content, and the first with an Ed25519 signature block.
std::vector<std::vector<uint8_t>> firmware_files()
{
    const std::string installed = "1.3.0 Build 20261123 Rel.00001";
    const std::string other = "[" + entry_json("VR200", "2.0", "55530000") + "]";
    const std::string by_settings = "[" + entry_json("VR100", "1.0", "45550000", "00000000") + "]";
    const std::vector<std::vector<fw_image>> files = {
        {{kFits,
          table_json(raw_device::layout(kDevice), 0x100000),
          fwinfo_json(installed),
          {{"kernel", pattern(3000, 1)}, {"rootfs", pattern(2000, 2)}}}},
        {{other, "", fwinfo_json(installed), {{"kernel", "k"}}},
         {kFits, "", fwinfo_json("1.4.0 Build 2 Rel.00002"), {{"kernel", "k2"}}}},
        {{by_settings, "", fwinfo_json("1.10.0 Build 7 Rel.00009"), {{"kernel", "k"}}}},
        {{kFits, "", fwinfo_json(installed), {{"ubi", pattern(1000, 3)}}}},
    };
    std::vector<std::vector<uint8_t>> out;
    for (const auto &images : files) {
        temp_dir dir;
        out.push_back(pack_images(dir, images));
    }
    temp_dir dir;
    out.push_back(pack_firmware(dir, two_image_manifest(dir)));
    // The first file again with an Ed25519 signature block of the test key.
    set_pack_ed25519_keys({std::string(VIREO_KEY_DIR) + "/vireo_test_ed25519_DO_NOT_SHIP.pem"});
    temp_dir signed_dir;
    out.push_back(pack_images(signed_dir, files[0]));
    set_pack_ed25519_keys({});
    return out;
}

// The first image's up-ptn-table text and the contents of its entries.
void image_parts(const std::vector<uint8_t> &file)
{
    firmware_header h;
    vireo_firmware_header_decode(file.data(), &h);
    std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)> table(
        vireo_firmware_up_ptn_table_build_by_fimware(file.data(), int32_t(file.size()), &h),
        vireo_firmware_up_ptn_table_destroy);
    const char *start = reinterpret_cast<const char *>(&file[h.header_len]);
    seed("up_ptn_table", std::string(start, strnlen(start, UP_PTN_TABLE_SIZE)));
    for (uint32_t i = 0; table && i < table->ptn_cnt; i++) {
        const up_ptn_info &e = table->ptns[i];
        if (e.base >= 0 && e.size < 65536)
            seed("records", text(file, h.header_len + UP_PTN_TABLE_SIZE + e.base, e.size));
    }
}

// What the signature covers: the MD5 of bytes 20 on, the signature field as zeros.
void signature_seeds(const std::vector<uint8_t> &file)
{
    std::vector<uint8_t> zeroed(file);
    memset(&zeroed[FIRMWARE_SIGNATURE_OFFSET], 0, FIRMWARE_SIGNATURE_SIZE);
    uint8_t digest[16];
    vireo_md5(&zeroed[FIRMWARE_SIGNED_FROM],
              static_cast<uint32_t>(zeroed.size() - FIRMWARE_SIGNED_FROM), digest);
    uint8_t blob[256];
    const int32_t blob_len = base64_decode(builtin_public_key, builtin_public_key_len, blob);
    const std::string head = std::string(reinterpret_cast<char *>(digest), 16) + '\x80' + '\0' +
                             text(file, FIRMWARE_SIGNATURE_OFFSET, FIRMWARE_SIGNATURE_SIZE);
    seed("rsa", head + std::string(reinterpret_cast<char *>(blob), static_cast<size_t>(blob_len)));
    seed("rsa", head + builtin_public_key);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    out_dir = argv[1];
    mkdir(out_dir.c_str(), 0755);
    const std::vector<std::vector<uint8_t>> files = firmware_files();
    for (const std::vector<uint8_t> &file : files) {
        const std::string bytes(file.begin(), file.end());
        for (char control : {'\x00', '\x01', '\x08', '\x09'})
            seed("chain", control + bytes);
        seed("check", '\x01' + bytes);
        seed("check_ubi", '\x01' + bytes);
        image_parts(file);
    }
    seed("check", '\x00' + std::string(files[0].begin(), files[0].end()));
    seed("check_ubi", '\x00' + std::string(files[0].begin(), files[0].end()));
    signature_seeds(files[0]);

    seed("records", with_content_header(kDevice));
    seed("records", with_content_header(flag_doc(true, 3) + '\0'));
    seed("records", with_content_header(R"({"dbootFlag":"1","integerFlag":"0","score":-2})"));
    seed("records", table_json(raw_device::layout(kDevice), 0x100000));
    for (const char *pair : {"1.3.0 Build 5 Rel.00007|1.3.0 Build 5 Rel.00007",
                             "1.4.0 Build 1 Rel.00001|1.2.9 Build 1 Rel.00001",
                             "0.9.9 Build 1 Rel.1|1.10.0 Build 20261123 Rel.00042"}) {
        std::string s = pair;
        s[s.find('|')] = '\0';
        seed("version", s);
    }
    seed("uci", "config special_id_support_list\n\tlist special_id '45550000'\n"
                "\tlist special_id \"5553\\\n0000\"\n");
    seed("uci", "package profile\nconfig 'global' g # comment\n\toption name 'a b'; option x y\n"
                "config global g\n\tlist name c\nc t\n\to k \"multi\nline\"\n\tl k2 ''\n");
    // Plans at the start of a 256 KiB flash: one whose staged block lies inside it, one
    // with a block to erase after, both also with their check left to the target.
    plan_fields fits;
    fits.staged_base = 0x20000;
    plan_fields erases = fits;
    erases.after_base = 0x30000;
    erases.after_len = 0x10000;
    for (const plan_fields &f : {fits, erases})
        for (char control : {'\x00', '\x01'})
            seed("journal", control + plan_bytes(f, 0));
    printf("%d seeds in %s\n", seeds, out_dir.c_str());
    return 0;
}
