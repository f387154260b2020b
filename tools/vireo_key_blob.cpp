// SPDX-License-Identifier: Apache-2.0
#include "tools/vireo_key_blob.h"

#include <cstdio>
#include <memory>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

namespace
{

using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using bn_ptr = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

void put_le32(std::vector<uint8_t> *out, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

} // namespace

EVP_PKEY *vireo_read_pem_key(const std::string &path, bool want_private, bool *opened)
{
    FILE *f = fopen(path.c_str(), "r");
    *opened = f != nullptr;
    if (!f)
        return nullptr;
    EVP_PKEY *key = want_private ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr)
                                 : PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
    if (!key && !want_private) {
        rewind(f);
        key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    }
    fclose(f);
    return key;
}

std::vector<uint8_t> vireo_pem_to_key_blob(const std::string &pem_path, std::string *error)
{
    bool opened = false;
    pkey_ptr key(vireo_read_pem_key(pem_path, false, &opened), EVP_PKEY_free);
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) {
        *error = "cannot read an RSA key from '" + pem_path + "'";
        return {};
    }
    BIGNUM *n_raw = nullptr, *e_raw = nullptr;
    if (!EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &n_raw) ||
        !EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_E, &e_raw)) {
        BN_free(n_raw);
        BN_free(e_raw);
        *error = "cannot read the modulus and exponent of '" + pem_path + "'";
        return {};
    }
    bn_ptr n(n_raw, BN_free), e(e_raw, BN_free);
    const int bits = BN_num_bits(n.get());
    if (bits != 1024) {
        *error = "the key has " + std::to_string(bits) + " bits; the tool takes 1024-bit keys";
        return {};
    }
    if (BN_num_bits(e.get()) > 32) {
        *error = "the public exponent does not fit in 32 bits";
        return {};
    }
    std::vector<uint8_t> blob = {6, 2, 0, 0};
    put_le32(&blob, 0x0000A400);
    for (char c : std::string("RSA1"))
        blob.push_back(static_cast<uint8_t>(c));
    put_le32(&blob, static_cast<uint32_t>(bits));
    put_le32(&blob, static_cast<uint32_t>(BN_get_word(e.get())));
    std::vector<uint8_t> modulus(static_cast<size_t>(bits / 8));
    BN_bn2lebinpad(n.get(), modulus.data(), static_cast<int>(modulus.size()));
    blob.insert(blob.end(), modulus.begin(), modulus.end());
    return blob;
}

std::string vireo_base64_encode(const std::vector<uint8_t> &data)
{
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < data.size(); i += 3) {
        const uint32_t b0 = data[i];
        const uint32_t b1 = i + 1 < data.size() ? data[i + 1] : 0;
        const uint32_t b2 = i + 2 < data.size() ? data[i + 2] : 0;
        const uint32_t v = (b0 << 16) | (b1 << 8) | b2;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += i + 1 < data.size() ? alphabet[(v >> 6) & 63] : '=';
        out += i + 2 < data.size() ? alphabet[v & 63] : '=';
    }
    return out;
}
