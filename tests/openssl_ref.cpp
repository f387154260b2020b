// SPDX-License-Identifier: Apache-2.0
#include "openssl_ref.h"

#include <algorithm>
#include <cstdio>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <stdexcept>

bytes random_bytes(size_t n)
{
    bytes b(n);
    if (n && RAND_bytes(b.data(), static_cast<int>(n)) != 1)
        throw std::runtime_error("RAND_bytes");
    return b;
}

bytes ref_digest(const EVP_MD *md, const bytes &data)
{
    bytes out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &len, md, nullptr);
    out.resize(len);
    return out;
}

pkey_ptr ref_rsa_load_private(const std::string &pem_path)
{
    FILE *f = fopen(pem_path.c_str(), "r");
    if (!f)
        return pkey_ptr(nullptr, EVP_PKEY_free);
    EVP_PKEY *key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    fclose(f);
    return pkey_ptr(key, EVP_PKEY_free);
}

bytes ref_rsa_sign_sha1(EVP_PKEY *key, const bytes &data)
{
    const bytes digest = ref_digest(EVP_sha1(), data);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr),
                                                                    EVP_PKEY_CTX_free);
    size_t len = 0;
    if (EVP_PKEY_sign_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) != 1 ||
        EVP_PKEY_sign(ctx.get(), nullptr, &len, digest.data(), digest.size()) != 1)
        throw std::runtime_error("sign init");
    bytes sig(len);
    if (EVP_PKEY_sign(ctx.get(), sig.data(), &len, digest.data(), digest.size()) != 1)
        throw std::runtime_error("sign");
    sig.resize(len);
    return sig;
}

bytes reversed(bytes b)
{
    return bytes(b.rbegin(), b.rend());
}

void resign_firmware(std::vector<uint8_t> &file)
{
    bytes signed_part(file.begin() + 20, file.end());
    std::fill(signed_part.begin() + (304 - 20), signed_part.begin() + (432 - 20), 0);
    pkey_ptr key =
        ref_rsa_load_private(std::string(VIREO_KEY_DIR) + "/vireo_test_key_DO_NOT_SHIP.pem");
    const bytes sig = reversed(ref_rsa_sign_sha1(key.get(), ref_digest(EVP_md5(), signed_part)));
    std::copy(sig.begin(), sig.end(), file.begin() + 304);
}
