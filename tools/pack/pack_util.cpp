// SPDX-License-Identifier: Apache-2.0
#include "tools/pack/pack_util.h"

#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_sigblock.h"
#include "tools/vireo_key_blob.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

bytes read_all(const std::string &path)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        throw pack_error("cannot open '" + path + "': " + strerror(errno));
    bytes data;
    uint8_t chunk[1 << 16];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    const bool failed = ferror(f);
    fclose(f);
    if (failed)
        throw pack_error("cannot read '" + path + "'");
    return data;
}

void write_all(const std::string &path, const bytes &data)
{
    const std::string tmp = path + ".tmp";
    FILE *f = fopen(tmp.c_str(), "wb");
    if (!f)
        throw pack_error("cannot create '" + tmp + "': " + strerror(errno));
    size_t done = 0;
    while (done < data.size()) {
        const size_t n = std::min<size_t>(data.size() - done, 1 << 20);
        if (fwrite(data.data() + done, 1, n, f) != n)
            break;
        done += n;
        progress("writing", done, data.size());
    }
    const bool ok = done == data.size() && fflush(f) == 0;
    fclose(f);
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        remove(tmp.c_str());
        throw pack_error("cannot write '" + path + "'");
    }
}

json_ptr parse_json(const std::string &text, const std::string &what)
{
    json_ptr json(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!json)
        throw pack_error(what + ": not valid JSON");
    return json;
}

std::string print_json(const cJSON *json)
{
    char *text = cJSON_Print(json);
    if (!text)
        throw pack_error("out of memory");
    std::string s(text);
    cJSON_free(text);
    return s;
}

void progress(const char *what, uint64_t done, uint64_t total)
{
    const uint64_t step = 16u << 20;
    if (total < step || (done % step != 0 && done != total))
        return;
    fprintf(stderr, "vireo_firmware_pack: %s %llu of %llu MiB\n", what,
            static_cast<unsigned long long>(done >> 20),
            static_cast<unsigned long long>(total >> 20));
}

uint32_t get_be32(const uint8_t *p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

void put_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

std::string hex(const uint8_t *p, size_t n)
{
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; i++) {
        snprintf(two, sizeof(two), "%02x", p[i]);
        s += two;
    }
    return s;
}

bytes md5_of(const uint8_t *data, size_t n)
{
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr);
    const size_t step = 1 << 20;
    for (size_t done = 0; done < n;) {
        const size_t k = std::min(step, n - done);
        EVP_DigestUpdate(ctx.get(), data + done, k);
        done += k;
        progress("hashing", done, n);
    }
    bytes out(16);
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx.get(), out.data(), &len);
    return out;
}

bytes signed_digest(const uint8_t *image, size_t n)
{
    if (n < FIRMWARE_SIGNATURE_OFFSET + FIRMWARE_SIGNATURE_SIZE)
        throw pack_error("image too short to hold a signature");
    bytes copy(image + FIRMWARE_SIGNED_FROM, image + n);
    memset(copy.data() + FIRMWARE_SIGNATURE_OFFSET - FIRMWARE_SIGNED_FROM, 0,
           FIRMWARE_SIGNATURE_SIZE);
    return md5_of(copy.data(), copy.size());
}

bytes prehash_of(const uint8_t *image, size_t n)
{
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), EVP_blake2b512(), nullptr);
    const size_t head = std::min<size_t>(n, SIGBLOCK_END);
    bytes masked(image, image + head);
    vireo_sigblock_mask(0, masked.data(), masked.size());
    EVP_DigestUpdate(ctx.get(), masked.data(), masked.size());
    const size_t step = 1 << 20;
    for (size_t done = head; done < n;) {
        const size_t k = std::min(step, n - done);
        EVP_DigestUpdate(ctx.get(), image + done, k);
        done += k;
        progress("hashing", done, n);
    }
    bytes out(SIGBLOCK_PREHASH_SIZE);
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx.get(), out.data(), &len);
    return out;
}

bytes ed25519_sign(EVP_PKEY *key, const bytes &prehash)
{
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    bytes sig(SIGBLOCK_SIG_SIZE);
    size_t len = sig.size();
    if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(ctx.get(), sig.data(), &len, prehash.data(), prehash.size()) != 1 ||
        len != SIGBLOCK_SIG_SIZE)
        throw pack_error("cannot sign with this Ed25519 key");
    return sig;
}

static pkey_ptr read_pem(const std::string &pem, bool is_private)
{
    bool opened = false;
    EVP_PKEY *key = vireo_read_pem_key(pem, is_private, &opened);
    if (!opened)
        throw pack_error("cannot open key '" + pem + "': " + strerror(errno));
    if (!key || EVP_PKEY_base_id(key) != EVP_PKEY_RSA || EVP_PKEY_get_bits(key) != 1024) {
        EVP_PKEY_free(key);
        throw pack_error("'" + pem + "' is not a 1024-bit RSA " +
                         (is_private ? "private" : "public") + " key in PEM form");
    }
    return pkey_ptr(key, EVP_PKEY_free);
}

pkey_ptr load_private_key(const std::string &pem)
{
    return read_pem(pem, true);
}

pkey_ptr load_public_key(const std::string &pem)
{
    return read_pem(pem, false);
}

pkey_ptr key_from_blob_text(const std::string &text)
{
    bytes blob(text.size() * 3 / 4 + 4);
    const int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 20 + 128 || memcmp(blob.data() + 8, "RSA1", 4) != 0)
        return pkey_ptr(nullptr, EVP_PKEY_free);
    const uint32_t bits =
        blob[12] | (blob[13] << 8) | (blob[14] << 16) | (uint32_t(blob[15]) << 24);
    const uint32_t e = blob[16] | (blob[17] << 8) | (blob[18] << 16) | (uint32_t(blob[19]) << 24);
    if (bits != 1024)
        return pkey_ptr(nullptr, EVP_PKEY_free);
    std::unique_ptr<BIGNUM, decltype(&BN_free)> bn_n(BN_lebin2bn(blob.data() + 20, 128, nullptr),
                                                     BN_free);
    std::unique_ptr<BIGNUM, decltype(&BN_free)> bn_e(BN_new(), BN_free);
    BN_set_word(bn_e.get(), e);
    std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> bld(OSSL_PARAM_BLD_new(),
                                                                        OSSL_PARAM_BLD_free);
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, bn_n.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, bn_e.get());
    std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> params(
        OSSL_PARAM_BLD_to_param(bld.get()), OSSL_PARAM_free);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
        return pkey_ptr(nullptr, EVP_PKEY_free);
    return pkey_ptr(key, EVP_PKEY_free);
}

using pctx_ptr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

bytes sign_digest(EVP_PKEY *key, const bytes &digest)
{
    unsigned char h[20];
    unsigned int hlen = 0;
    EVP_Digest(digest.data(), digest.size(), h, &hlen, EVP_sha1(), nullptr);
    pctx_ptr ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    size_t len = 0;
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) != 1 ||
        EVP_PKEY_sign(ctx.get(), nullptr, &len, h, hlen) != 1)
        throw pack_error("cannot sign with this key");
    bytes sig(len);
    if (EVP_PKEY_sign(ctx.get(), sig.data(), &len, h, hlen) != 1 || len != 128)
        throw pack_error("cannot sign with this key");
    return bytes(sig.rbegin(), sig.rend());
}

bool verify_digest(EVP_PKEY *key, const bytes &digest, const uint8_t *sig_le, size_t n)
{
    unsigned char h[20];
    unsigned int hlen = 0;
    EVP_Digest(digest.data(), digest.size(), h, &hlen, EVP_sha1(), nullptr);
    const bytes sig_be(std::reverse_iterator<const uint8_t *>(sig_le + n),
                       std::reverse_iterator<const uint8_t *>(sig_le));
    pctx_ptr ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
           EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
           EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) == 1 &&
           EVP_PKEY_verify(ctx.get(), sig_be.data(), sig_be.size(), h, hlen) == 1;
}
