// SPDX-License-Identifier: Apache-2.0
#include "pack_fixture.h"

#include "firmware/vireo_firmware_integrity.h"

#include <cstring>

void set_entry_size(std::vector<uint8_t> &file, const std::string &name, const std::string &hex)
{
    const char *list = reinterpret_cast<const char *>(file.data()) + FIRMWARE_HEADER_SIZE;
    const std::string text(list, strnlen(list, UP_PTN_TABLE_SIZE));
    const size_t at = text.find("0x", text.find("size", text.find(name)));
    std::copy(hex.begin(), hex.end(), file.begin() + FIRMWARE_HEADER_SIZE + static_cast<long>(at));
}

std::string two_image_manifest(const temp_dir &dir)
{
    dir.write("kernel.bin", pattern(5000, 1));
    dir.write("rootfs.bin", pattern(3000, 2));
    dir.write("extra.json", "{\"a\":\"b\"}");
    return R"({"images": [
  {"partition-table": {"disk-size": "0x1000000", "partition-table": [
      {"name": "partition-table", "base": "0x0", "size": "0x10000", "attr": "0x0"},
      {"name": "kernel", "base": "0x10000", "size": "0x100000", "attr": "0x0"}]},
   "support-list": [{"model_name": "VR100", "model_version": "1.0", "special_id": "55530000"}],
   "firmware-info": {"software-version": "1.0.3 Build 20230512 Rel.01234", "firmware-id": "id"},
   "partitions": [{"name": "kernel", "file": "kernel.bin"}, {"name": "rootfs", "file": "rootfs.bin"}]},
  {"support-list": [{"model_name": "VR200", "model_version": "2.0", "special_id": "55530000"}],
   "partitions": [{"name": "kernel", "file": "kernel.bin"},
                  {"name": "extra", "file": "extra.json", "content-header": true}]}
]})";
}

void reset_integrity_state()
{
    digest_from_image = 1;
    supplied_digest_valid = 0;
    supplied_prehash_valid = 0;
    rsa_passed = 0;
}
