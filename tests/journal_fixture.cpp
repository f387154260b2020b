// SPDX-License-Identifier: Apache-2.0
#include "journal_fixture.h"

#include "common/vireo_endian.h"
#include "crypto/vireo_siphash.h"

namespace
{

std::string be32(uint32_t v)
{
    std::string b(4, '\0');
    vireo_put_be32(reinterpret_cast<uint8_t *>(&b[0]), v);
    return b;
}

std::string be64(uint64_t v)
{
    return be32(static_cast<uint32_t>(v >> 32)) + be32(static_cast<uint32_t>(v));
}

} // namespace

uint64_t plan_check(const uint8_t *data, size_t len)
{
    const uint64_t key[2] = {0x766972656f6a6e6cULL, 0x6c61796f75742d31ULL};
    return vireo_siphash24(key, data, len);
}

std::string plan_bytes(const plan_fields &f, uint32_t home)
{
    std::string out = "VIREOJNL" + be32(f.version) + be32(0);
    for (uint32_t v : {f.erase, f.unit, home, f.plan_blocks, f.record_blocks})
        out += be32(v);
    out += be32(1) + be32(f.staged_base) + be32(f.staged_len);
    out += f.after_len ? be32(1) + be32(f.after_base) + be32(f.after_len) : be32(0);
    std::string name = "cfg";
    name.resize(32, '\0');
    out += be32(1) + name;
    for (uint32_t v : {0xB0000u, 0x10000u, 0xC0000u, 0x10000u, f.move_len})
        out += be32(v);
    if (f.version > 1)
        out += be32(f.copy);
    out += be64(f.move_staged) + be64(0);
    out += be32(0); // no table
    out.replace(12, 4, be32(static_cast<uint32_t>(out.size() + 8)));
    return out + be64(plan_check(reinterpret_cast<const uint8_t *>(out.data()), out.size()));
}
