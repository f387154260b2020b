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

// Walks the file as the commands do and reads every record it finds; returns the number
// of partition contents located inside the file.
int read_all_images(std::vector<uint8_t> &file)
{
    int located = 0;
    const int32_t size = static_cast<int32_t>(file.size());
    int32_t offset = 0;
    for (int images = 0; images < 8; images++) {
        firmware_header header;
        // Signature mode after -m: structure only, so damage reaches the readers.
        if (vireo_firmware_header_parse(file.data() + offset, size - offset, &header, 1) != 0)
            return located;
        up_ptn_table *t = vireo_firmware_up_ptn_table_build_by_fimware(file.data() + offset,
                                                                       size - offset, &header);
        if (t) {
            const uint32_t payload =
                static_cast<uint32_t>(offset) + header.header_len + UP_PTN_TABLE_SIZE;
            for (uint32_t i = 0; i < t->ptn_cnt; i++) {
                const uint8_t *c =
                    vireo_firmware_ptn_content(file.data(), file.size(), payload, &t->ptns[i]);
                located += c ? 1 : 0;
                if (c && vireo_ptn_header_verify(c, static_cast<int32_t>(t->ptns[i].size))) {
                    int32_t off = 0, len = 0;
                    if (vireo_ptn_header_get_content_pos(c, static_cast<int32_t>(t->ptns[i].size),
                                                         &off, &len)) {
                        ptn_table *p = vireo_ptn_build_by_json_data(
                            reinterpret_cast<const char *>(c + off), len);
                        if (p)
                            vireo_ptn_destroy(p);
                    }
                }
            }
            vireo_firmware_up_ptn_table_destroy(t);
        }
        if (vireo_firmware_chain_next(offset, &header, size, &offset) != 1)
            return located;
    }
    return located;
}

} // namespace

TEST(Robustness, DamagedFirmwareFilesAreReadSafely)
{
    temp_dir dir;
    const std::vector<uint8_t> good = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(good.empty());
    const size_t second =
        (size_t(good[28]) << 24) | (size_t(good[29]) << 16) | (size_t(good[30]) << 8) | good[31];
    std::mt19937 rng(4160);
    // Fields whose damage matters most: lengths, nextpos, the table text, partition heads.
    const std::vector<size_t> hot = {28,          29,          30,          31,         32, 33,
                                     34,          35,          36,          37,         38, 39,
                                     second + 28, second + 31, second + 32, second + 35};
    int rounds_with_contents = 0;
    int intact = 0;
    capture_stdout([&] {
        reset_integrity_state();
        digest_from_image = 0;
        std::vector<uint8_t> copy = good;
        intact = read_all_images(copy);
        for (int round = 0; round < 400; round++) {
            std::vector<uint8_t> file = good;
            const int edits = 1 + static_cast<int>(rng() % 4);
            for (int e = 0; e < edits; e++) {
                size_t pos;
                switch (rng() % 3) {
                case 0:
                    pos = hot[rng() % hot.size()];
                    break;
                case 1:
                    pos = FIRMWARE_HEADER_SIZE + rng() % 600; // the table's JSON text
                    break;
                default:
                    pos = rng() % file.size();
                }
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
