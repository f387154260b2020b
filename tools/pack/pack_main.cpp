// SPDX-License-Identifier: Apache-2.0
// vireo_firmware_pack: lays out, signs and inspects firmware files for
// vireo_firmware_upgrade.
#include "crypto/vireo_rsa.h"
#include "tools/pack/pack_build.h"
#include "tools/pack/pack_readback.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

const char kHelp[] =
    "Usage:\n"
    "  vireo_firmware_pack build MANIFEST.json --key PRIVATE.pem -o up.bin\n"
    "  vireo_firmware_pack inspect up.bin [--key PUBLIC.pem]\n"
    "  vireo_firmware_pack digest up.bin -o DIGEST\n"
    "\n"
    "build    writes a signed firmware file from a manifest (see tools/README.md):\n"
    "         {\"images\": [{\"partition-table\": FILE-or-JSON, \"support-list\": ...,\n"
    "                      \"firmware-info\": ..., \"partitions\": [{\"name\": N, \"file\": F,\n"
    "                      \"content-header\": true|false}, ...]}, ...]}\n"
    "         A content that two images share is stored once, in the earlier image.\n"
    "inspect  prints the chain of images, their headers, partitions and records, and checks\n"
    "         digests and signature (against the key built into vireo_firmware_upgrade\n"
    "         unless --key names a public key). Exit 0: well formed and signed; 1: not.\n"
    "digest   writes the 16-byte digest that the signature covers, for the device\n"
    "         tool's -m option (-m DIGEST -t HEAD checks a file from its head alone).\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 wrong usage.\n";

struct args {
    std::vector<std::string> positional;
    std::string key;
    std::string out;
};

bool parse_args(int argc, char **argv, args *a)
{
    for (int i = 2; i < argc; i++) {
        const std::string s = argv[i];
        if ((s == "--key" || s == "-k" || s == "-o" || s == "--output") && i + 1 < argc)
            (s == "--key" || s == "-k" ? a->key : a->out) = argv[++i];
        else if (!s.empty() && s[0] == '-')
            return false;
        else
            a->positional.push_back(s);
    }
    return true;
}

int usage_error(const std::string &why)
{
    fprintf(stderr, "vireo_firmware_pack: %s\n\n%s", why.c_str(), kHelp);
    return 2;
}

int run(const std::string &cmd, const args &a)
{
    if (cmd == "build") {
        if (a.positional.size() != 1 || a.key.empty() || a.out.empty())
            return usage_error("build takes a manifest, --key and -o");
        const std::vector<pack_image> images = read_manifest(a.positional[0]);
        pkey_ptr key = load_private_key(a.key);
        const bytes file = build_firmware(images, key.get());
        write_all(a.out, file);
        printf("wrote '%s': %zu bytes, %zu image(s)\n", a.out.c_str(), file.size(), images.size());
        return 0;
    }
    if (cmd == "inspect") {
        if (a.positional.size() != 1 || !a.out.empty())
            return usage_error("inspect takes one firmware file");
        if (!a.key.empty())
            return inspect_firmware(a.positional[0], load_public_key(a.key).get(), a.key);
        pkey_ptr key = key_from_blob_text(std::string(builtin_public_key, builtin_public_key_len));
        if (!key)
            throw pack_error("the built-in key text is not a 1024-bit key blob");
        return inspect_firmware(a.positional[0], key.get(), "built-in");
    }
    if (cmd == "digest") {
        if (a.positional.size() != 1 || a.out.empty() || !a.key.empty())
            return usage_error("digest takes one firmware file and -o");
        const bytes file = read_all(a.positional[0]);
        write_all(a.out, signed_digest(file.data(), file.size()));
        return 0;
    }
    return usage_error("unknown command '" + cmd + "'");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        fputs(kHelp, stdout);
        return 0;
    }
    if (argc < 2)
        return usage_error("no command given");
    args a;
    if (!parse_args(argc, argv, &a))
        return usage_error("unknown option");
    try {
        return run(argv[1], a);
    } catch (const pack_error &e) {
        fprintf(stderr, "vireo_firmware_pack: %s\n", e.what());
    } catch (const std::exception &e) {
        fprintf(stderr, "vireo_firmware_pack: %s\n", e.what());
    }
    return 1;
}
