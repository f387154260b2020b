// SPDX-License-Identifier: Apache-2.0
// Our MD5, SHA-1 and RSA verification against OpenSSL's, measured in the same run;
// prints the ratios at the end (above 1: ours is faster).
#include "crypto/vireo_md5.h"
#include "crypto/vireo_rsa.h"
#include "crypto/vireo_sha1.h"
#include "crypto/vireo_siphash.h"
#include "firmware/vireo_firmware_seal.h"
#include "tools/vireo_key_blob.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <string>
#include <vector>

namespace
{

std::vector<uint8_t> buffer(size_t n)
{
    std::vector<uint8_t> b(n);
    RAND_bytes(b.data(), static_cast<int>(n));
    return b;
}

// Throughput of one digest function over a buffer of state.range(0) bytes.
template <size_t N>
void digest_throughput(benchmark::State &state,
                       const std::function<void(const uint8_t *, size_t, uint8_t *)> &digest)
{
    const auto data = buffer(static_cast<size_t>(state.range(0)));
    uint8_t out[N];
    for (auto _ : state) {
        digest(data.data(), data.size(), out);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void openssl_digest(const EVP_MD *md, const uint8_t *p, size_t n, uint8_t *out)
{
    unsigned int len;
    EVP_Digest(p, n, out, &len, md, nullptr);
}

void ours_md5(benchmark::State &state)
{
    digest_throughput<16>(state, [](const uint8_t *p, size_t n, uint8_t *out) {
        vireo_md5(p, static_cast<uint32_t>(n), out);
    });
}

void openssl_md5(benchmark::State &state)
{
    digest_throughput<16>(state, [](const uint8_t *p, size_t n, uint8_t *out) {
        openssl_digest(EVP_md5(), p, n, out);
    });
}

void ours_sha1(benchmark::State &state)
{
    digest_throughput<20>(state, [](const uint8_t *p, size_t n, uint8_t *out) {
        sha1(p, static_cast<uint32_t>(n), out);
    });
}

void openssl_sha1(benchmark::State &state)
{
    digest_throughput<20>(state, [](const uint8_t *p, size_t n, uint8_t *out) {
        openssl_digest(EVP_sha1(), p, n, out);
    });
}

// The seal an upgrade takes of every 4 KiB block of a firmware file, next to the MD5 pass.
void ours_seal(benchmark::State &state)
{
    const uint64_t key[2] = {1, 2};
    digest_throughput<8>(state, [&key](const uint8_t *p, size_t n, uint8_t *out) {
        uint64_t h = 0;
        for (size_t at = 0; at < n; at += 4096)
            h ^= vireo_siphash24(key, p + at, n - at < 4096 ? n - at : 4096);
        memcpy(out, &h, sizeof(h));
    });
}

// What an upgrade pays beyond its flash writes for each byte it writes: the copy out of the
// mapped file, proven against its block's seal, in the 2048-byte units of a flash write.
void ours_proven_copy(benchmark::State &state)
{
    const size_t n = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> file(n);
    for (size_t i = 0; i < n; i++)
        file[i] = static_cast<uint8_t>(i * 31 + (i >> 12));
    vireo_seals seals;
    vireo_seals_init(&seals, file.data(), static_cast<uint32_t>(n));
    vireo_seals_complete(&seals);
    uint8_t unit[2048];
    for (auto _ : state) {
        vireo_sealed_reader reader(&seals);
        for (size_t at = 0; at < n; at += sizeof(unit))
            reader.copy(at, sizeof(unit), unit);
        benchmark::DoNotOptimize(unit);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

struct signed_digest {
    EVP_PKEY *key = nullptr;
    std::vector<uint8_t> blob;
    uint8_t digest[16];
    std::vector<uint8_t> sig_be;
};

signed_digest &fixture()
{
    static signed_digest f = [] {
        signed_digest s;
        FILE *pem = fopen(VIREO_KEY_DIR "/vireo_test_key_DO_NOT_SHIP.pem", "r");
        if (!pem) {
            fprintf(stderr, "cannot open the test key\n");
            exit(1);
        }
        s.key = PEM_read_PrivateKey(pem, nullptr, nullptr, nullptr);
        fclose(pem);
        std::string error;
        s.blob = vireo_pem_to_key_blob(VIREO_KEY_DIR "/vireo_test_key.pub.pem", &error);
        RAND_bytes(s.digest, 16);
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        size_t len = 0;
        EVP_DigestSignInit(ctx, nullptr, EVP_sha1(), nullptr, s.key);
        EVP_DigestSign(ctx, nullptr, &len, s.digest, 16);
        s.sig_be.resize(len);
        EVP_DigestSign(ctx, s.sig_be.data(), &len, s.digest, 16);
        EVP_MD_CTX_free(ctx);
        return s;
    }();
    return f;
}

void ours_rsa_verify(benchmark::State &state)
{
    signed_digest &f = fixture();
    const std::vector<uint8_t> sig_le(f.sig_be.rbegin(), f.sig_be.rend());
    for (auto _ : state) {
        const int32_t ok = rsa_verify_blob(f.blob.data(), static_cast<uint32_t>(f.blob.size()),
                                           f.digest, 16, sig_le.data(), 128);
        if (ok != 1)
            state.SkipWithError("signature refused");
        benchmark::DoNotOptimize(ok);
    }
}

void openssl_rsa_verify(benchmark::State &state)
{
    signed_digest &f = fixture();
    for (auto _ : state) {
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        EVP_DigestVerifyInit(ctx, nullptr, EVP_sha1(), nullptr, f.key);
        const int ok = EVP_DigestVerify(ctx, f.sig_be.data(), f.sig_be.size(), f.digest, 16);
        EVP_MD_CTX_free(ctx);
        if (ok != 1)
            state.SkipWithError("signature refused");
        benchmark::DoNotOptimize(ok);
    }
}

// Remembers each run's time per iteration while printing as usual.
class recording_reporter : public benchmark::ConsoleReporter
{
  public:
    std::map<std::string, double> ns;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs)
            ns[r.benchmark_name()] = r.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

BENCHMARK(ours_md5)->Arg(16 << 10)->Arg(16 << 20);
BENCHMARK(openssl_md5)->Arg(16 << 10)->Arg(16 << 20);
BENCHMARK(ours_sha1)->Arg(16 << 10)->Arg(16 << 20);
BENCHMARK(openssl_sha1)->Arg(16 << 10)->Arg(16 << 20);
BENCHMARK(ours_seal)->Arg(16 << 20);
BENCHMARK(ours_proven_copy)->Arg(16 << 20);
BENCHMARK(ours_rsa_verify)->Unit(benchmark::kMicrosecond);
BENCHMARK(openssl_rsa_verify)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    recording_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printf("\nSpeed relative to OpenSSL in this run (OpenSSL time / our time):\n");
    for (const char *algo : {"md5", "sha1"})
        for (const char *size : {"16384", "16777216"}) {
            const std::string ours = std::string("ours_") + algo + "/" + size;
            const std::string ref = std::string("openssl_") + algo + "/" + size;
            if (reporter.ns.count(ours) && reporter.ns.count(ref))
                printf("  %-5s %9s bytes: %.2fx\n", algo, size,
                       reporter.ns[ref] / reporter.ns[ours]);
        }
    if (reporter.ns.count("ours_seal/16777216") && reporter.ns.count("ours_md5/16777216"))
        printf("  sealing 4 KiB blocks costs %.2fx the time of our MD5 pass\n",
               reporter.ns["ours_seal/16777216"] / reporter.ns["ours_md5/16777216"]);
    // An upgrade beyond its flash writes: the seal while verifying, the proven copy-out while
    // writing (twice for what it reads back).
    for (const char *what : {"ours_seal", "ours_proven_copy"}) {
        const std::string key = std::string(what) + "/16777216";
        if (reporter.ns.count(key))
            printf("  %s: %.2f ms per MiB\n",
                   std::string(what) == "ours_seal" ? "seal (while verifying)"
                                                    : "proven copy-out (per pass over a content)",
                   reporter.ns[key] / 16 / 1e6);
    }
    if (reporter.ns.count("ours_rsa_verify") && reporter.ns.count("openssl_rsa_verify"))
        printf("  rsa-1024 verify: ours %.1f us, OpenSSL %.1f us, ratio %.2fx\n",
               reporter.ns["ours_rsa_verify"], reporter.ns["openssl_rsa_verify"],
               reporter.ns["openssl_rsa_verify"] / reporter.ns["ours_rsa_verify"]);
    return 0;
}
