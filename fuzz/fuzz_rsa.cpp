// The signature check with arbitrary signature and key bytes. Input: the 16-byte digest,
// the signature's length (2 bytes, little-endian), the signature, then the key, tried both
// as a key blob and as the base64 text of one. A signature that verifies must stop
// verifying when the digest changes.
#include "fuzz_util.h"

#include "crypto/vireo_rsa.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 18 || size > 4096)
        return 0;
    uint8_t digest[16];
    memcpy(digest, data, 16);
    size_t sig_len = data[16] | data[17] << 8;
    const uint8_t *sig = data + 18;
    if (sig_len > size - 18)
        sig_len = size - 18;
    const uint8_t *key = sig + sig_len;
    const uint32_t key_len = static_cast<uint32_t>(data + size - key);
    const std::string key_text(reinterpret_cast<const char *>(key), key_len);
    const uint32_t n = static_cast<uint32_t>(sig_len);

    const int32_t by_blob = rsa_verify_blob(key, key_len, digest, 16, sig, n);
    const int32_t by_text = rsa_verify_base64_key(key_text.c_str(), key_len, digest, 16, sig, n);
    if (by_blob || by_text) {
        digest[0] ^= 1;
        if (rsa_verify_blob(key, key_len, digest, 16, sig, n) ||
            rsa_verify_base64_key(key_text.c_str(), key_len, digest, 16, sig, n))
            abort();
    }
    return 0;
}
