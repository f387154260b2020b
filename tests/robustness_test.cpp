// Damaged firmware files and documents, fed to the readers: failures are fine, reads
// outside the buffers are not (the sanitizer build checks that).
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_integrity.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"
#include "ptn/vireo_ptn_header.h"

#include "pack_fixture.h"

#include <gtest/gtest.h>
#include <random>

namespace
{

// Reads every record of every image the walk finds; returns the number of partition
// contents located inside the file.
int read_all_images(const std::vector<uint8_t> &file)
{
    int located = 0;
    // Signature mode after -m: structure only, so damage reaches the readers.
    walk_images(file, 1, [&](int32_t offset, const firmware_header &header, up_ptn_table *t) {
        const uint32_t payload =
            static_cast<uint32_t>(offset) + header.header_len + UP_PTN_TABLE_SIZE;
        for (uint32_t i = 0; t && i < t->ptn_cnt; i++) {
            const uint8_t *c =
                vireo_firmware_ptn_content(file.data(), file.size(), payload, &t->ptns[i]);
            located += c ? 1 : 0;
            const int32_t size = static_cast<int32_t>(t->ptns[i].size);
            int32_t off = 0, len = 0;
            if (c && vireo_ptn_header_verify(c, size) &&
                vireo_ptn_header_get_content_pos(c, size, &off, &len))
                if (ptn_table *p =
                        vireo_ptn_build_by_json_data(reinterpret_cast<const char *>(c + off), len))
                    vireo_ptn_destroy(p);
        }
    });
    return located;
}

} // namespace

TEST(Robustness, DamagedFirmwareFilesAreReadSafely)
{
    temp_dir dir;
    const std::vector<uint8_t> good = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(good.empty());
    const size_t second = be32(good.data() + 28);
    std::mt19937 rng(4160);
    // Fields whose damage matters most: nextpos and the lengths of both images.
    std::vector<size_t> hot;
    for (size_t pos = 28; pos < 40; pos++)
        hot.insert(hot.end(), {pos, second + pos});
    int rounds_with_contents = 0;
    int intact = 0;
    capture_stdout([&] {
        reset_integrity_state();
        digest_from_image = 0;
        intact = read_all_images(good);
        for (int round = 0; round < 400; round++) {
            std::vector<uint8_t> file = good;
            const int edits = 1 + static_cast<int>(rng() % 4);
            for (int e = 0; e < edits; e++) {
                const uint32_t kind = rng() % 3; // a hot field, the table's text, anywhere
                const size_t pos = kind == 0   ? hot[rng() % hot.size()]
                                   : kind == 1 ? FIRMWARE_HEADER_SIZE + rng() % 600
                                               : rng() % file.size();
                file[pos] = static_cast<uint8_t>(rng());
            }
            if (rng() % 5 == 0)
                file.resize(rng() % file.size());
            rounds_with_contents += read_all_images(file) > 0 ? 1 : 0;
        }
        reset_integrity_state();
    });
    EXPECT_EQ(8, intact) << "both images, all partitions";
    // Enough damaged files got as far as their partitions for the run to mean something.
    EXPECT_GT(rounds_with_contents, 100);
}
