// The whole -C command on a fake device, as the tool runs it from its command line. The
// input is a control byte, then the firmware file. Control & 7 == 0 keeps the signature
// test; otherwise -m turns it off, as a mutated file never passes it, so that the file
// reaches the records. Built twice: for raw flash, and with VIREO_FUZZ_UBI for -w ubi on a
// dual-image UBI device whose settings accept a second special id.
#include "fuzz_util.h"

#include "main/vireo_firmware_upgrade_main.h"
#include "raw_device.h"

#include <getopt.h>
#include <string>
#include <vector>

static fake_root *device;
static fuzz_file *up;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
#if VIREO_FUZZ_UBI
    static fake_root tree;
    tree.write("sys/class/ubi/version", "1\n");
    tree.ubi_volume(0, 0, "device-info", with_content_header(kDevice));
    tree.ubi_volume(0, 1, "firmware-info",
                    with_content_header(fwinfo_json("1.3.0 Build 20261123 Rel.00001")));
    tree.write("etc/profile.d/profile",
               "config special_id_support_list\n\tlist special_id '45550000'\n");
#else
    static raw_device tree(raw_device::layout(kDevice));
#endif
    tree.write("digest", std::string(16, '\0'));
    device = &tree;
    static fuzz_file file("up.bin");
    up = &file;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    fuzz_reset_state();
    up->write(data + 1, size - 1);
    std::vector<std::string> args = {"vireo_firmware_upgrade", "-C", "-u", up->path};
    if (data[0] & 7)
        args.insert(args.end(), {"-m", device->join("digest")});
    if (VIREO_FUZZ_UBI)
        args.insert(args.end(), {"-w", "ubi"});
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    optind = 0; // a new command line for getopt
    vireo_firmware_upgrade_main(static_cast<int>(args.size()), argv.data());
    return 0;
}
