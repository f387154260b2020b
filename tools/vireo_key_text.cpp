// SPDX-License-Identifier: Apache-2.0
// vireo_key_text: prints the base64 key text that the device tool builds in, from an
// RSA public (or private) key in PEM form, or the key-ring line of an Ed25519 key.
#include "tools/vireo_ed25519_key.h"
#include "tools/vireo_key_blob.h"

#include <cstdio>
#include <cstring>

static void help(FILE *out)
{
    fprintf(out, "Usage: vireo_key_text KEY.pem\n"
                 "Prints the 200-character base64 text of the public-key blob of a 1024-bit\n"
                 "RSA key, as built into vireo_firmware_upgrade. Build the tool with it:\n"
                 "  vireo_key_text vendor.pub.pem > vendor.key.txt\n"
                 "  cmake -DVIREO_PUBLIC_KEY_FILE=vendor.key.txt ...\n"
                 "For an Ed25519 key, prints its key-ring line instead (base64 of \"Ed\", the\n"
                 "8-byte key id and the key, as minisign and usign write public keys):\n"
                 "  vireo_key_text vendor-ed25519.pub.pem >> vendor.keyring.txt\n"
                 "  cmake -DVIREO_SIGNATURE_POLICY=require \\\n"
                 "        -DVIREO_SIGNATURE_KEYS=vendor.keyring.txt ...\n");
}

int main(int argc, char **argv)
{
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        help(stdout);
        return 0;
    }
    if (argc != 2) {
        help(stderr);
        return 2;
    }
    std::string error;
    if (EVP_PKEY *ed = vireo_ed25519_load_pem(argv[1], false, &error)) {
        uint8_t pk[32];
        const bool ok = vireo_ed25519_public_of(ed, pk);
        EVP_PKEY_free(ed);
        if (ok) {
            printf("%s\n", vireo_ed25519_ring_line(pk).c_str());
            return 0;
        }
    }
    const std::vector<uint8_t> blob = vireo_pem_to_key_blob(argv[1], &error);
    if (blob.empty()) {
        fprintf(stderr, "vireo_key_text: %s\n", error.c_str());
        return 1;
    }
    printf("%s\n", vireo_base64_encode(blob).c_str());
    return 0;
}
