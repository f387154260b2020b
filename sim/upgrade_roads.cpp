// SPDX-License-Identifier: Apache-2.0
#include "upgrade_roads.h"

#include <cstdlib>
#include <stdexcept>
#include <sys/stat.h>

namespace
{

// VIREO_MTD_REWRITE: a file that another process changes (a byte 256 from its end) while
// the tool waits for an erase, after its verification. VIREO_MTD_NO_ERASE: nothing erased.
// The stand-in erases past the flash emulation, as the router's utility erases the chip, in
// the partition's file and in the whole flash's.
const char kMtd[] = R"SH(#!/bin/sh
echo "mtd $*" >> "$VIREO_TEST_LOG"
f="$VIREO_MTD_REWRITE"
[ -n "$f" ] && printf X | LD_PRELOAD= dd of="$f" bs=1 seek=$(($(stat -c %s "$f") - 256)) conv=notrunc status=none
[ -n "$VIREO_MTD_NO_ERASE" ] && exit 0
for n in "$VIREO_TEST_ROOT"/sys/class/mtd/mtd*/name; do
  [ "$(cat "$n")" = "$2" ] || continue
  d=${n%/name}; f="$VIREO_TEST_ROOT/dev/${d##*/}"
  head -c "$(stat -c %s "$f")" /dev/zero | tr '\0' '\377' | LD_PRELOAD= dd of="$f" conv=notrunc status=none
  [ -f "$d/offset" ] || continue
  head -c "$(stat -c %s "$f")" /dev/zero | tr '\0' '\377' |
    LD_PRELOAD= dd of="$VIREO_TEST_ROOT/dev/mtd0" bs=4096 seek="$(cat "$d/offset")" oflag=seek_bytes conv=notrunc status=none
done
)SH";
const char kLogOnly[] = "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> \"$VIREO_TEST_LOG\"\n";

// A factory flag record, told apart from every record the tool writes by its note.
std::string factory_flag(int score)
{
    return R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":)" +
           std::to_string(score) + R"(,"note":"factory"})";
}

// The record of a flag volume (its length counts the NUL), and of the raw "extra-para".
std::string volume_record(const std::string &doc)
{
    return with_content_header(doc + '\0');
}

// The layouts below are in 64 KiB units; a road is built at a scale (1 for flash of 64 KiB
// erase blocks, 2 for 128 KiB), which multiplies every base and size but not the contents.
std::vector<raw_ptn> at_scale(std::vector<raw_ptn> ptns, uint32_t scale)
{
    for (raw_ptn &p : ptns) {
        p.base *= scale;
        p.size *= scale;
    }
    return ptns;
}

std::vector<raw_ptn> raw_layout()
{
    return {{"partition-table", 0x00000, 0x10000, ""},
            {"device-info", 0x10000, 0x10000, with_content_header(kDevice)},
            {"extra-para", 0x20000, 0x10000, with_content_header(factory_flag(0))},
            {"support-list", 0x30000, 0x10000, ""},
            {"firmware-info", 0x40000, 0x10000, ""},
            {"kernel", 0x50000, 0x20000, pattern(0x20000, 21)},
            {"rootfs", 0x70000, 0x20000, pattern(0x8000, 22)}};
}

byte_range whole(const std::string &file)
{
    return {file, 0, 0};
}

// The MTD node of the partition named name in a raw device's list.
std::string mtd_of(const std::vector<raw_ptn> &ptns, const std::string &name)
{
    for (size_t i = 0; i < ptns.size(); i++)
        if (ptns[i].name == name)
            return "/dev/mtd" + std::to_string(i + 1);
    throw std::invalid_argument("no partition named " + name);
}

upgrade_road raw_road(const std::string &name, std::vector<raw_ptn> ptns, uint32_t disk,
                      const fw_image &image)
{
    upgrade_road road;
    road.name = name;
    auto dev = std::make_shared<raw_device>(std::move(ptns), disk);
    pack_images(*dev, {image});
    road.args = {"-U", "-u", dev->join("up.bin")};
    road.layout = dev->ptns;
    road.disk_size = disk;
    road.device = std::move(dev);
    return road;
}

upgrade_road raw_moves(uint32_t k)
{
    std::vector<raw_ptn> ptns = raw_layout();
    ptns.push_back({"data", 0x90000, 0x10000, pattern(0x10000, 23)});
    ptns.push_back({"log", 0xA0000, 0x10000, pattern(0x10000, 24)});
    ptns.push_back({"cfg", 0xB0000, 0x10000, pattern(0x10000, 25)});
    // "log" grows into the place of "data", which takes the place of "cfg", which moves on.
    std::vector<raw_ptn> next = raw_layout();
    next.push_back({"log", 0x90000, 0x20000, ""});
    next.push_back({"data", 0xB0000, 0x10000, ""});
    next.push_back({"cfg", 0xC0000, 0x10000, ""});
    next.push_back({"radio", 0xD0000, 0x10000, ""});
    upgrade_road road = raw_road("raw-moves", at_scale(ptns, k), 0x100000 * k,
                                 {kFits,
                                  table_json(at_scale(next, k), 0x100000 * k),
                                  fwinfo_json("1.3.0 Build 2 Rel.1"),
                                  {{"kernel", pattern(0x5000, 26)}}});
    road.carried = {whole("/dev/mtd1"), whole("/dev/mtd4"), whole("/dev/mtd5"), whole("/dev/mtd6")};
    road.user = {{"/dev/mtd0", 0x90000 * k, 0x40000 * k}};
    road.spare = {{"/dev/mtd0", 0xE0000 * k, 0x20000 * k}};
    road.flag = "/dev/mtd3";
    road.flag_done = flag_doc(true, 0);
    return road;
}

upgrade_road raw_same_layout(uint32_t k)
{
    const std::vector<raw_ptn> ptns = at_scale(raw_layout(), k);
    upgrade_road road =
        raw_road("raw", ptns, 0x100000 * k,
                 {kFits,
                  table_json(ptns, 0x100000 * k),
                  fwinfo_json("1.3.0 Build 2 Rel.1"),
                  {{"kernel", pattern(0x5000, 27)}, {"rootfs", pattern(0x1801, 28)}}});
    road.carried = {whole("/dev/mtd4"), whole("/dev/mtd5"), whole("/dev/mtd6"), whole("/dev/mtd7")};
    road.flag = "/dev/mtd3";
    road.flag_done = flag_doc(true, 0);
    return road;
}

// Volume vol of UBI device dev, on the fake tree and in the road's list.
void add_volume(upgrade_road &road, int dev, int vol, const std::string &name,
                const std::string &content)
{
    road.device->ubi_volume(dev, vol, name, content);
    road.volumes.push_back({dev, vol, name, content});
}

upgrade_road raw_ubi(uint32_t k)
{
    // The flag volumes live on UBI device 4, which the upgrade attaches from "extra-para-ubi"
    // (attached already on the fake tree, whose "ubiattach" only logs).
    const std::vector<raw_ptn> ptns =
        at_scale({{"partition-table", 0x00000, 0x10000, ""},
                  {"device-info", 0x10000, 0x10000, with_content_header(kDevice)},
                  {"support-list", 0x20000, 0x10000, ""},
                  {"firmware-info", 0x30000, 0x10000, ""},
                  {"firmware-info.b", 0x40000, 0x10000, ""},
                  {"ubi", 0x80000, 0x20000, pattern(0x20000, 29)},
                  {"ubi.b", 0xA0000, 0x20000, pattern(0x18000, 30)},
                  {"extra-para-ubi", 0x100000, 0x80000, ""}},
                 k);
    // The primary scores higher: "ubi" and "firmware-info" go to their ".b" twins.
    upgrade_road road = raw_road("raw-ubi", ptns, 0x200000 * k,
                                 {kFits,
                                  table_json(ptns, 0x200000 * k),
                                  fwinfo_json("1.3.0 Build 2 Rel.1"),
                                  {{"ubi", pattern(0x6000, 31)}}});
    // Records of 12 KiB: one eraseblock on every medium the roads run on.
    add_volume(road, 4, 0, "extra-para", padded(volume_record(factory_flag(2)), 0x3000));
    add_volume(road, 4, 1, "extra-para.b", padded(volume_record(factory_flag(1)), 0x3000));
    road.ubi_homes = {{4, "extra-para-ubi"}};
    road.carried = {whole(mtd_of(ptns, "support-list")), whole(mtd_of(ptns, "firmware-info.b")),
                    whole(mtd_of(ptns, "ubi.b"))};
    road.flag = "/dev/ubi4_1";
    road.flag_done = flag_doc(true, 3) + '\0';
    return road;
}

// UBI device 0 with the volumes of a dual-image device, each file its reserved room; on a
// router's flash the device fills the MTD partition "ubi".
upgrade_road ubi_volumes(uint32_t k)
{
    upgrade_road road;
    road.device = std::make_shared<fake_root>();
    const std::pair<const char *, std::string> volumes[] = {
        {"device-info", with_content_header(kDevice)},
        {"firmware-info", with_content_header(fwinfo_json("1.4.0 Build 1 Rel.1"))},
        {"firmware-info.b", with_content_header(fwinfo_json("1.2.0 Build 1 Rel.1"))},
        {"support-list", ""},
        {"extra-para", volume_record(factory_flag(2))},
        {"extra-para.b", volume_record(factory_flag(1))},
        {"kernel", pattern(0x6000, 32)},
        {"kernel.b", pattern(0x5000, 33)},
        {"rootfs_data", pattern(0x3000, 34)},
        {"rootfs_data.b", pattern(0x1000, 35)},
        {"log", pattern(0x2000, 36)},
        {"log.b", ""},
    };
    int vol = 0;
    for (const auto &[name, content] : volumes) {
        const size_t room = std::string(name).rfind("kernel", 0) == 0 ? 0x8000 : 0x4000;
        add_volume(road, 0, vol++, name, padded(content, room));
    }
    std::vector<raw_ptn> layout =
        at_scale({{"partition-table", 0x00000, 0x10000, ""}, {"ubi", 0x10000, 0x1F0000, ""}}, k);
    layout[0].content = with_content_header(table_json(layout, 0x200000 * k));
    road.layout = layout;
    road.disk_size = 0x200000 * k;
    road.ubi_homes = {{0, "ubi"}};
    return road;
}

upgrade_road ubi_mode(uint32_t k)
{
    upgrade_road road = ubi_volumes(k);
    road.name = "ubi";
    const std::string record = with_content_header(fwinfo_json("1.4.1 Build 1 Rel.1"));
    pack_images(
        *road.device,
        {{kFits, "", "", {{"firmware-info.b", record}, {"kernel.b", pattern(0x4801, 37)}}}});
    road.args = {"-U", "-w", "ubi", "-p", "0", "-u", road.device->join("up.bin")};
    road.carried = {whole("/dev/ubi0_2"), whole("/dev/ubi0_3"), whole("/dev/ubi0_7")};
    road.user = {whole("/dev/ubi0_9"), whole("/dev/ubi0_11")};
    road.flag = "/dev/ubi0_5";
    road.flag_done = flag_doc(true, 3) + '\0';
    return road;
}

upgrade_road rollback(uint32_t k)
{
    upgrade_road road = ubi_volumes(k);
    road.name = "rollback";
    road.args = {"-r", "-p", "0"};
    road.flag = "/dev/ubi0_5";
    road.flag_done = flag_doc(true, 3) + '\0';
    return road;
}

} // namespace

std::vector<std::string> upgrade_road_names()
{
    return {"raw-moves", "raw", "raw-ubi", "ubi", "rollback"};
}

upgrade_road make_upgrade_road(const std::string &name, uint32_t scale)
{
    upgrade_road road = name == "raw-moves"  ? raw_moves(scale)
                        : name == "raw"      ? raw_same_layout(scale)
                        : name == "raw-ubi"  ? raw_ubi(scale)
                        : name == "ubi"      ? ubi_mode(scale)
                        : name == "rollback" ? rollback(scale)
                                             : throw std::invalid_argument("no road named " + name);
    install_stand_ins(*road.device);
    return road;
}

void install_stand_ins(const fake_root &root)
{
    for (const auto &[tool, text] : {std::pair<const char *, const char *>{"mtd", kMtd},
                                     {"ubiattach", kLogOnly},
                                     {"ubidetach", kLogOnly}})
        chmod(root.write(std::string("bin/") + tool, text).c_str(), 0755);
    root.write("tmp/.keep", "");
}

std::vector<std::string> tool_env(const fake_root &root)
{
    return {"PATH=" + root.join("bin") + ":" + getenv("PATH"),
            "VIREO_TEST_LOG=" + root.join("calls.log"),
            "VIREO_TEST_ROOT=" + root.path,
            "VIREO_FLASH_ROOT=" + root.path,
            "LD_PRELOAD=" VIREO_FLASH_PRELOAD,
            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
}

run_result run_road(const upgrade_road &road, const std::vector<std::string> &env)
{
    std::vector<std::string> all = tool_env(*road.device);
    all.insert(all.end(), env.begin(), env.end());
    std::vector<std::string> args = {road.device->path};
    args.insert(args.end(), road.args.begin(), road.args.end());
    return run_program(VIREO_FAKE_ROOT_TOOL, args, all);
}
