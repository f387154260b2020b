// SPDX-License-Identifier: Apache-2.0
// The physical floor of a flash change: which erase blocks a chip must erase and which of
// their program units it must program.
#include "flash_floor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

// A flash of 4 erase blocks of 4 units of 4 bytes, every unit holding data.
const uint32_t kUnit = 4, kBlock = 16;

std::string data_flash()
{
    std::string s(4 * kBlock, 'd');
    return s;
}

std::string with(std::string s, size_t at, const std::string &bytes)
{
    s.replace(at, bytes.size(), bytes);
    return s;
}

const std::string ff_unit(kUnit, '\xFF');
const std::string ff_block(kBlock, '\xFF');

struct floor_case {
    const char *what;
    std::string before;
    std::string after;
    std::vector<flash_region> named;
    uint64_t erases;
    uint64_t programs;
};

TEST(FlashFloor, CountsTheErasesAndProgramsTheResultNeeds)
{
    const std::string d = data_flash();
    const floor_case cases[] = {
        {"nothing changes", d, d, {}, 0, 0},
        {"one byte of block 1 changes: its four units are programmed again",
         d,
         with(d, kBlock + 5, "x"),
         {},
         1,
         4},
        {"a changed block that ends with an erased unit programs only the others",
         d,
         with(with(d, kBlock, "x"), kBlock + 12, ff_unit),
         {},
         1,
         3},
        {"a block that ends erased is erased and never programmed",
         d,
         with(d, 2 * kBlock, ff_block),
         {},
         1,
         0},
        {"changes in two blocks", d, with(with(d, 0, "x"), 3 * kBlock + 15, "y"), {}, 2, 8},
        {"a region erased by name counts even when its bytes stay", d, d, {{kBlock, kBlock}}, 1, 4},
        {"units filled in erased space need no erase",
         with(d, kBlock, ff_block),
         with(with(d, kBlock, ff_block), kBlock + 4, "abcdefgh"),
         {},
         0,
         2},
        {"a filled unit beside a changed one: the block is erased and programmed whole",
         with(d, kBlock + 4, ff_unit),
         with(with(d, kBlock + 4, "abcd"), kBlock, "x"),
         {},
         1,
         4},
        {"a unit that ends erased where it held data needs the erase",
         d,
         with(d, 3 * kBlock + 8, ff_unit),
         {},
         1,
         3},
        {"an erased region that stays erased costs only its erase",
         with(d, 2 * kBlock, ff_block),
         with(d, 2 * kBlock, ff_block),
         {{2 * kBlock, kBlock}},
         1,
         0},
        {"a region that ends inside a block takes the whole block", d, d, {{kBlock + 1, 2}}, 1, 4},
        {"a region over two blocks, one of them also changed",
         d,
         with(d, kBlock, "x"),
         {{0, 2 * kBlock}},
         2,
         8},
    };
    for (const floor_case &c : cases) {
        flash_floor f;
        std::string error;
        ASSERT_TRUE(flash_floor_of(c.before, c.after, kBlock, kUnit, c.named, &f, &error))
            << c.what << ": " << error;
        EXPECT_EQ(f.erases, c.erases) << c.what;
        EXPECT_EQ(f.programs, c.programs) << c.what;
    }
}

TEST(FlashFloor, ByteWiseProgramsOfNorCountEachByte)
{
    const std::string blank(2 * kBlock, '\xFF');
    const std::string three = with(blank, 3, "abc");
    const struct {
        const char *what;
        std::string before, after;
        uint64_t erases, programs;
    } cases[] = {
        {"three bytes into erased flash", blank, three, 0, 3},
        {"one of them changed again: its block is erased, the others programmed again", three,
         with(three, 4, "x"), 1, 3},
        {"a byte added beside them", three, with(three, kBlock - 1, "z"), 0, 1},
    };
    for (const auto &c : cases) {
        flash_floor f;
        std::string error;
        ASSERT_TRUE(flash_floor_of(c.before, c.after, kBlock, 1, {}, &f, &error)) << error;
        EXPECT_EQ(f.erases, c.erases) << c.what;
        EXPECT_EQ(f.programs, c.programs) << c.what;
    }
}

TEST(FlashFloor, RefusesWhatDescribesNoFlash)
{
    const std::string d = data_flash();
    const struct {
        const char *what;
        std::string after;
        uint32_t block, unit;
        std::vector<flash_region> named;
    } cases[] = {
        {"images of different sizes", d + "x", kBlock, kUnit, {}},
        {"no erase block", d, 0, kUnit, {}},
        {"no program unit", d, kBlock, 0, {}},
        {"a block that is not whole units", d, kBlock, 5, {}},
        {"a region past the end", d, kBlock, kUnit, {{3 * kBlock, 2 * kBlock}}},
        {"a region whose end wraps around", d, kBlock, kUnit, {{kBlock, UINT64_MAX}}},
        {"an empty region", d, kBlock, kUnit, {{0, 0}}},
    };
    for (const auto &c : cases) {
        flash_floor f;
        std::string error;
        EXPECT_FALSE(flash_floor_of(d, c.after, c.block, c.unit, c.named, &f, &error)) << c.what;
        EXPECT_FALSE(error.empty()) << c.what;
    }
}

} // namespace
