// SPDX-License-Identifier: Apache-2.0
// vireo_flash_floor: the physical floor of a flash change and its time on a chip of given
// timings (flash_floor.h).
#include "flash_floor.h"
#include "sim_util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace
{

int usage()
{
    std::fprintf(stderr,
                 "Usage: vireo_flash_floor BEFORE AFTER --erase-size BYTES --program-size BYTES\n"
                 "         --erase-us US --program-ns NS [--erased BASE:SIZE]...\n"
                 "Prints \"E erases, P programs, F ms\": the erases and programs a chip must make\n"
                 "to turn BEFORE into AFTER (each changed erase block, and each block of a region\n"
                 "erased by name, erased once; each of their program units that does not end as\n"
                 "0xFF programmed once) and their time at US per erase and NS per program.\n");
    return 2;
}

bool number(const char *s, uint64_t *v)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long long n = std::strtoull(s, &end, 0);
    if (errno || end == s || *end || s[0] == '-')
        return false;
    *v = n;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> files;
    uint64_t erase_size = 0, program_size = 0, erase_us = 0, program_ns = 0;
    std::vector<flash_region> regions;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--erase-size" && has_value && number(argv[i + 1], &erase_size))
            ++i;
        else if (a == "--program-size" && has_value && number(argv[i + 1], &program_size))
            ++i;
        else if (a == "--erase-us" && has_value && number(argv[i + 1], &erase_us))
            ++i;
        else if (a == "--program-ns" && has_value && number(argv[i + 1], &program_ns))
            ++i;
        else if (a == "--erased" && has_value) {
            const std::string v = argv[++i];
            const size_t colon = v.find(':');
            flash_region r;
            if (colon == std::string::npos || !number(v.substr(0, colon).c_str(), &r.base) ||
                !number(v.substr(colon + 1).c_str(), &r.size))
                return usage();
            regions.push_back(r);
        } else if (a.rfind("--", 0) == 0)
            return usage();
        else
            files.push_back(a);
    }
    if (files.size() != 2 || erase_size > UINT32_MAX || program_size > UINT32_MAX)
        return usage();
    for (const std::string &f : files)
        if (access(f.c_str(), R_OK) != 0) {
            std::fprintf(stderr, "vireo_flash_floor: cannot read %s\n", f.c_str());
            return 1;
        }
    flash_floor f;
    std::string error;
    if (!flash_floor_of(read_file(files[0]), read_file(files[1]), static_cast<uint32_t>(erase_size),
                        static_cast<uint32_t>(program_size), regions, &f, &error)) {
        std::fprintf(stderr, "vireo_flash_floor: %s\n", error.c_str());
        return 1;
    }
    const double ms = (static_cast<double>(f.erases) * static_cast<double>(erase_us) * 1000.0 +
                       static_cast<double>(f.programs) * static_cast<double>(program_ns)) /
                      1e6;
    std::printf("%llu erases, %llu programs, %.0f ms\n", static_cast<unsigned long long>(f.erases),
                static_cast<unsigned long long>(f.programs), ms);
    return 0;
}
