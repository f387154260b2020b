// SPDX-License-Identifier: Apache-2.0
#include "raw_device.h"

#include "common/vireo_common.h"
#include "ptn/vireo_extra_para.h"

#include <stdexcept>

std::string devinfo_json(const std::string &model, const std::string &version,
                         const std::string &special_id, const std::string &flash_version)
{
    std::string s = R"({"manufacturer_name":"Vireo","manufacturer_full_name":"Vireo Networks",)"
                    R"("manufacturer_url":"http://vireo.example","model_name":")" +
                    model + R"(","model_full_name":"Vireo )" + model +
                    R"(","model_id":"M1","model_version":")" + version +
                    R"(","region":"EU","special_id":")" + special_id + "\",";
    if (!flash_version.empty())
        s += R"("flash_version":")" + flash_version + "\",";
    return s + R"("hw_id":"HW","oem_id":"OEM","public_key":"PK","license_key":"LK"})";
}

std::string fwinfo_json(const std::string &version)
{
    return R"({"software-version": ")" + version + R"(", "firmware-id": "ID"})";
}

std::string table_json(const std::vector<raw_ptn> &ptns, uint32_t disk_size)
{
    std::string s = vireo_strf(R"({"disk-size":"0x%08X","partition-table":[)", disk_size);
    for (size_t i = 0; i < ptns.size(); i++)
        s += vireo_strf(R"(%s{"name":"%s","base":"0x%08X","size":"0x%08X","attr":"0x0"})",
                        i ? "," : "", ptns[i].name.c_str(), ptns[i].base, ptns[i].size);
    return s + "]}";
}

raw_device::raw_device(std::vector<raw_ptn> list, uint32_t disk)
    : ptns(std::move(list)), disk_size(disk)
{
    for (raw_ptn &p : ptns)
        if (p.name == "partition-table" && p.content.empty())
            p.content = with_content_header(table_json(ptns, disk_size));
    std::string flash(disk_size, '\xff');
    for (size_t i = 0; i < ptns.size(); i++) {
        const raw_ptn &p = ptns[i];
        mtd(static_cast<int>(i) + 1, p.name, p.size, p.content, static_cast<long>(p.base));
        flash.replace(p.base, p.content.size(), p.content);
    }
    mtd(0, "flash", disk_size, flash);
}

std::vector<raw_ptn> with_records(std::vector<raw_ptn> rest, size_t count)
{
    std::vector<raw_ptn> ptns = {
        {"partition-table", 0x00000, 0x10000, ""},
        {"device-info", 0x10000, 0x10000, with_content_header(kDevice)},
        {"extra-para", 0x20000, 0x10000, with_content_header(flag_doc(true, 0))},
        {"support-list", 0x30000, 0x10000, ""},
        {"firmware-info", 0x40000, 0x10000, ""}};
    ptns.resize(std::min(count, ptns.size()));
    ptns.insert(ptns.end(), rest.begin(), rest.end());
    return ptns;
}

std::vector<raw_ptn> raw_device::layout(const std::string &devinfo)
{
    return {{"partition-table", 0x00000, 0x10000, ""},
            {"device-info", 0x10000, 0x10000, with_content_header(devinfo)},
            {"device-info.b", 0x20000, 0x10000, with_content_header(devinfo)},
            {"extra-para", 0x30000, 0x10000, ""},
            {"kernel", 0x40000, 0x40000, std::string(0x1000, 'K')},
            {"rootfs", 0x80000, 0x40000, std::string(0x1000, 'R')}};
}

std::string entry_json(const std::string &model, const std::string &version,
                       const std::string &special_id, const std::string &flash_version)
{
    std::string s = "{\"model_name\":\"" + model + "\",\"model_version\":\"" + version +
                    "\",\"special_id\":\"" + special_id + "\"";
    if (!flash_version.empty())
        s += ",\"flash_version\":\"" + flash_version + "\"";
    return s + "}";
}

std::string fw_manifest(const temp_dir &dir, const std::vector<fw_image> &images)
{
    std::string s = "{\"images\":[";
    for (size_t i = 0; i < images.size(); i++) {
        const fw_image &img = images[i];
        s += std::string(i ? "," : "") + "{\"support-list\":" + img.support_list;
        if (!img.table.empty())
            s += ",\"partition-table\":" + img.table;
        if (!img.fwinfo.empty())
            s += ",\"firmware-info\":" + img.fwinfo;
        s += ",\"partitions\":[";
        for (size_t j = 0; j < img.parts.size(); j++) {
            const std::string file = "img" + std::to_string(i) + "_" + img.parts[j].first;
            dir.write(file, img.parts[j].second);
            s += std::string(j ? "," : "") + "{\"name\":\"" + img.parts[j].first +
                 "\",\"file\":\"" + file + "\"}";
        }
        s += "]}";
    }
    return s + "]}";
}

static std::vector<std::string> pack_ed25519_keys;

void set_pack_ed25519_keys(const std::vector<std::string> &pem_paths)
{
    pack_ed25519_keys = pem_paths;
}

std::vector<uint8_t> pack_firmware(const temp_dir &dir, const std::string &manifest,
                                   std::string *error)
{
    const std::string path = dir.write("manifest.json", manifest);
    std::vector<std::string> args = {
        "build", path,
        "--key", std::string(VIREO_KEY_DIR) + "/vireo_test_key_DO_NOT_SHIP.pem",
        "-o",    dir.join("up.bin")};
    for (const std::string &key : pack_ed25519_keys) {
        args.push_back("--ed25519-key");
        args.push_back(key);
    }
    run_result r = run_program(VIREO_PACK_TOOL, args);
    if (error)
        *error = r.err;
    if (r.status != 0)
        return {};
    const std::string data = read_file(dir.join("up.bin"));
    return std::vector<uint8_t>(data.begin(), data.end());
}

std::vector<uint8_t> pack_images(const temp_dir &dir, const std::vector<fw_image> &images)
{
    std::string error;
    std::vector<uint8_t> file = pack_firmware(dir, fw_manifest(dir, images), &error);
    if (file.empty())
        throw std::runtime_error("packing failed: " + error);
    return file;
}

std::string flag_doc(bool on, int score)
{
    char text[128];
    on ? vireo_extra_para_format_flag_on(score, text, sizeof(text))
       : vireo_extra_para_format_flag_off(score, text, sizeof(text));
    return text;
}

std::string padded(const std::string &content, size_t size)
{
    std::string s = content;
    s.resize(std::max(size, s.size()), '\xff');
    return s;
}
