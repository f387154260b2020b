// SPDX-License-Identifier: Apache-2.0
// vireo_flash_write_tool DEVICE OFFSET DATA_FILE: the block-mode writer (2048-byte units) of
// DATA_FILE's bytes onto DEVICE at OFFSET, for the tests that run it under the flash emulation
// of the preloaded library. Exit status 0 when the write succeeded, 1 when it failed.
#include "common/vireo_file.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: %s DEVICE OFFSET DATA_FILE\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[3], std::ios::binary);
    const std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    const int32_t r = vireo_file_write_by_offset_block_mode(
        argv[1], static_cast<int32_t>(strtol(argv[2], nullptr, 0)), data.data(),
        static_cast<int32_t>(data.size()), 2048, nullptr);
    return r == 0 ? 0 : 1;
}
