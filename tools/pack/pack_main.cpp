// SPDX-License-Identifier: Apache-2.0
// vireo_firmware_pack: lays out, signs and inspects firmware files for
// vireo_firmware_upgrade.
#include "crypto/vireo_rsa.h"
#include "firmware/vireo_firmware_keyring.h"
#include "tools/pack/pack_build.h"
#include "tools/pack/pack_readback.h"
#include "tools/pack/pack_token.h"
#include "tools/vireo_ed25519_key.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

const char kHelp[] =
    "Usage:\n"
    "  vireo_firmware_pack build MANIFEST.json --key PRIVATE.pem -o up.bin\n"
    "  vireo_firmware_pack build ... --ed25519-key KEY [--ed25519-key KEY]\n"
    "  vireo_firmware_pack inspect up.bin [--key PUBLIC.pem] [--keyring RING]\n"
    "  vireo_firmware_pack digest up.bin -o DIGEST\n"
    "\n"
    "build    writes a signed firmware file from a manifest (see tools/README.md):\n"
    "         {\"images\": [{\"partition-table\": FILE-or-JSON, \"support-list\": ...,\n"
    "                      \"firmware-info\": ..., \"partitions\": [{\"name\": N, \"file\": F,\n"
    "                      \"content-header\": true|false}, ...]}, ...]}\n"
    "         A content that two images share is stored once, in the earlier image.\n"
    "         With --ed25519-key (once or twice), every header also carries a block of\n"
    "         Ed25519 signatures (docs/signature.md); the RSA signature is made last.\n"
    "         A key may be a PKCS#11 URI instead of a PEM file, for a key kept in a\n"
    "         token: pkcs11:token=T;object=O?pin-value=PIN (or pin-source=FILE; add\n"
    "         &module-path=MODULE.so for a module p11-kit does not know).\n"
    "inspect  prints the chain of images, their headers, partitions and records, and checks\n"
    "         digests and signature (against the key built into vireo_firmware_upgrade\n"
    "         unless --key names a public key), and each Ed25519 signature's key id and\n"
    "         verdict against a key ring (one public key a line, as vireo_key_text,\n"
    "         minisign or usign write them; by default the ring built into\n"
    "         vireo_firmware_upgrade). Exit 0: well formed and signed; 1: not. With\n"
    "         --keyring, or a tool built to require it, a missing or unverified Ed25519\n"
    "         signature is a problem.\n"
    "digest   writes the 16-byte digest that the RSA signature covers followed by the\n"
    "         64-byte Ed25519 prehash, for the device tool's -m option (-m DIGEST -t HEAD\n"
    "         checks a file from its head alone).\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 wrong usage.\n";

struct args {
    std::vector<std::string> positional;
    std::string key;
    std::string out;
    std::vector<std::string> ed25519_keys;
    std::string keyring;
};

bool parse_args(int argc, char **argv, args *a)
{
    for (int i = 2; i < argc; i++) {
        const std::string s = argv[i];
        if ((s == "--key" || s == "-k" || s == "-o" || s == "--output") && i + 1 < argc)
            (s == "--key" || s == "-k" ? a->key : a->out) = argv[++i];
        else if (s == "--ed25519-key" && i + 1 < argc)
            a->ed25519_keys.push_back(argv[++i]);
        else if (s == "--keyring" && i + 1 < argc)
            a->keyring = argv[++i];
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

using ring_keys = std::vector<vireo_ring_key>;

std::string text_of(const bytes &data)
{
    return std::string(data.begin(), data.end());
}

ring_keys read_ring(const std::string &text, const std::string &name)
{
    ring_keys ring;
    int bad_line = 0;
    if (vireo_keyring_parse(text.c_str(), &ring, &bad_line) != 0)
        throw pack_error("key ring '" + name + "': line " + std::to_string(bad_line) +
                         " is not an Ed25519 public key");
    return ring;
}

int run(const std::string &cmd, const args &a)
{
    if (cmd == "build") {
        if (a.positional.size() != 1 || a.key.empty() || a.out.empty() || !a.keyring.empty())
            return usage_error("build takes a manifest, --key and -o");
        if (a.ed25519_keys.size() > 2)
            return usage_error("build takes at most two --ed25519-key");
        const std::vector<pack_image> images = read_manifest(a.positional[0]);
        // Keys in a token stay open (and logged in) until the file is signed.
        std::vector<pkey_ptr> pems;
        std::vector<token_key_ptr> tokens;
        auto signer = [&](const std::string &arg, token_key_type type) {
            pack_signer s;
            if (is_pkcs11_uri(arg)) {
                tokens.push_back(token_key_open(arg, type));
                s.token = tokens.back().get();
            } else if (type == token_key_type::rsa1024) {
                pems.push_back(load_private_key(arg));
                s.pem = pems.back().get();
            } else {
                std::string error;
                pems.emplace_back(vireo_ed25519_load_pem(arg, true, &error), EVP_PKEY_free);
                if (!pems.back())
                    throw pack_error(error);
                s.pem = pems.back().get();
            }
            return s;
        };
        const pack_signer rsa = signer(a.key, token_key_type::rsa1024);
        std::vector<pack_signer> ed;
        for (const std::string &arg : a.ed25519_keys)
            ed.push_back(signer(arg, token_key_type::ed25519));
        const bytes file = build_firmware(images, rsa, ed);
        write_all(a.out, file);
        printf("wrote '%s': %zu bytes, %zu image(s)\n", a.out.c_str(), file.size(), images.size());
        return 0;
    }
    if (cmd == "inspect") {
        if (a.positional.size() != 1 || !a.out.empty() || !a.ed25519_keys.empty())
            return usage_error("inspect takes one firmware file");
        const ring_keys ring = a.keyring.empty()
                                   ? read_ring(builtin_keyring, "built-in")
                                   : read_ring(text_of(read_all(a.keyring)), a.keyring);
        const std::string ring_name = a.keyring.empty() ? "built-in" : a.keyring;
        const bool required = !a.keyring.empty() || VIREO_SIGNATURE_REQUIRE;
        if (!a.key.empty())
            return inspect_firmware(a.positional[0], load_public_key(a.key).get(), a.key, ring,
                                    ring_name, required);
        pkey_ptr key = key_from_blob_text(std::string(builtin_public_key, builtin_public_key_len));
        if (!key)
            throw pack_error("the built-in key text is not a 1024-bit key blob");
        return inspect_firmware(a.positional[0], key.get(), "built-in", ring, ring_name, required);
    }
    if (cmd == "digest") {
        if (a.positional.size() != 1 || a.out.empty() || !a.key.empty() ||
            !a.ed25519_keys.empty() || !a.keyring.empty())
            return usage_error("digest takes one firmware file and -o");
        const bytes file = read_all(a.positional[0]);
        bytes digests = signed_digest(file.data(), file.size());
        const bytes prehash = prehash_of(file.data(), file.size());
        digests.insert(digests.end(), prehash.begin(), prehash.end());
        write_all(a.out, digests);
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
