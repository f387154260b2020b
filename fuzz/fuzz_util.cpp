#include "fuzz_util.h"

#include "pack_fixture.h"
#include "ubi/vireo_ubi.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void fuzz_quiet()
{
    if (getenv("VIREO_FUZZ_TRACE"))
        return; // reproducing a finding: show the traces
    fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0 || dup2(null, STDOUT_FILENO) < 0)
        abort();
    close(null);
}

void fuzz_reset_state()
{
    reset_integrity_state();
    same_software_version = false;
}

fuzz_file::fuzz_file(const std::string &name)
{
    struct stat st;
    char pattern[] = "/dev/shm/vireo_fuzz_XXXXXX";
    char fallback[] = "/tmp/vireo_fuzz_XXXXXX";
    const char *made = mkdtemp(stat("/dev/shm", &st) == 0 ? pattern : fallback);
    if (!made)
        abort();
    dir = made;
    path = dir + "/" + name;
}

fuzz_file::~fuzz_file()
{
    unlink(path.c_str());
    rmdir(dir.c_str());
}

void fuzz_file::write(const uint8_t *data, size_t size) const
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0)
        abort();
}
