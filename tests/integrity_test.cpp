// SPDX-License-Identifier: Apache-2.0
// The signature check over whole files, heads and digests.
#include "firmware/vireo_firmware_integrity.h"

#include "firmware/vireo_firmware_header.h"

#include "pack_fixture.h"

#include <gtest/gtest.h>

TEST(Integrity, SignedFilePassesChangedOrShortFilesFail)
{
    reset_integrity_state();
    temp_dir dir;
    // The smallest signed image keeps the sweep short.
    const std::vector<uint8_t> file = pack_firmware(dir, R"({"images": [{"partitions": []}]})");
    ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), file.size());
    std::vector<uint8_t> buf = file;
    std::string out = capture_stdout([&] { EXPECT_EQ(0, vireo_check_rsa(buf.data(), 69696)); });
    EXPECT_EQ(std::vector<std::string>({"Rsa check pass"}), trace_messages(out));
    // Every byte from offset 20 on (the command tests change bytes before it); the sanitizer
    // build, many times slower, takes the whole header region (signature field included)
    // and a stride through the rest.
    size_t checked = 0;
    std::vector<size_t> passed;
    out = capture_stdout([&] {
        for (size_t p = 20; p < buf.size(); p++) {
            if (VIREO_SANITIZED && p >= FIRMWARE_HEADER_SIZE && p % 613 != 0 && p + 1 != buf.size())
                continue;
            buf[p] ^= 0x01;
            rsa_passed = 0;
            if (vireo_check_rsa(buf.data(), static_cast<uint32_t>(buf.size())) != -1)
                passed.push_back(p);
            buf[p] ^= 0x01;
            checked++;
        }
    });
    EXPECT_TRUE(passed.empty()) << "first accepted change at byte " << passed.front();
    EXPECT_GE(checked, VIREO_SANITIZED ? 4200u : 69676u);
    EXPECT_EQ(checked, count_trace(out, "Rsa check not pass"));
    EXPECT_EQ(file, buf) << "every check put the buffer back";

    // Short heads and a missing digest file the command tests cover; these are read here.
    reset_integrity_state();
    const std::string short_head = dir.write("head", std::string(431, 'x'));
    const std::string short_md5 = dir.write("m15", std::string(15, 'x'));
    const std::string empty = dir.write("empty", "");
    const std::vector<uint8_t> tiny(10, 0);
    out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_check_head_rsa(short_head.c_str()));
        EXPECT_EQ(-1, vireo_check_md5(short_md5.c_str()));
        EXPECT_EQ(-1, vireo_check_md5(empty.c_str()));
        EXPECT_EQ(-1, vireo_check_rsa(tiny.data(), 10));
    });
    EXPECT_EQ(0, supplied_digest_valid) << "a short digest file supplies nothing";
    EXPECT_TRUE(has_trace(out, "Failed to get file size, file='" + empty + "'"));
    EXPECT_TRUE(has_trace(out, "Rsa check not pass"));
}
