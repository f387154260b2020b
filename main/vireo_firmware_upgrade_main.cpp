// SPDX-License-Identifier: Apache-2.0
#include "main/vireo_firmware_upgrade_main.h"

#include "common/vireo_common.h"
#include "common/vireo_platform.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_integrity.h"
#include "ubi/vireo_ubi.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>
#include <vector>

namespace
{

// The parsed command line; the option arguments point into argv.
struct cmdline {
    bool show;
    bool usage_requested;
    bool upgrade;
    bool check;
    bool roll_back;
    const char *ptn_table_path;
    int32_t ubi_id;
    const char *up_path;
    const char *work_mode;
    const char *head_path;
    int32_t head_result;
    const char *report_path; // --report
};

const option long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"show", no_argument, nullptr, 's'},
    {"ptn-table", required_argument, nullptr, 'P'},
    {"ubi-id", required_argument, nullptr, 'p'},
    {"up", required_argument, nullptr, 'u'},
    {"check", no_argument, nullptr, 'C'},
    {"upgrade", no_argument, nullptr, 'U'},
    {"work-mode", required_argument, nullptr, 'w'},
    {"rsa", required_argument, nullptr, 'm'},
    {"head", required_argument, nullptr, 't'},
    {nullptr, 0, nullptr, 0},
};

// The long option "--report" (spelled whole) is taken out of the command line before the
// other options are read, so that they are read exactly as without it: no abbreviation of
// theirs becomes ambiguous. A word that is another option's argument is left alone.
const char kReport[] = "--report";

// The option taking the next word as its argument, for a word that is an option.
bool takes_next_word(const char *word)
{
    if (word[0] != '-' || word[1] == '\0')
        return false;
    if (word[1] != '-') {
        // A cluster of short options: the first that takes an argument takes the rest of
        // the word, or the next word when it ends the cluster.
        for (const char *c = word + 1; *c; c++)
            if (strchr("pPuwmt", *c))
                return c[1] == '\0';
        return false;
    }
    const char *name = word + 2;
    if (strchr(name, '='))
        return false;
    const option *found = nullptr;
    int prefixed = 0;
    for (const option *o = long_options; o->name; o++) {
        if (strcmp(o->name, name) == 0)
            return o->has_arg == required_argument;
        if (strncmp(o->name, name, strlen(name)) == 0) {
            found = o;
            prefixed++;
        }
    }
    return prefixed == 1 && found->has_arg == required_argument;
}

// The words of argv without "--report FILE" or "--report=FILE" (FILE kept in cmd), ending
// with a null; usage is asked for when "--report" ends the line without its FILE.
std::vector<char *> take_report_option(int argc, char **argv, cmdline *cmd)
{
    std::vector<char *> words(argv, argv + argc);
    std::vector<char *> kept;
    const size_t n = strlen(kReport);
    for (size_t i = 0; i < words.size(); i++) {
        char *word = words[i];
        if (i > 0 && strcmp(word, "--") == 0) {
            kept.insert(kept.end(), words.begin() + static_cast<long>(i), words.end());
            break;
        }
        if (i > 0 && strncmp(word, kReport, n) == 0 && (word[n] == '\0' || word[n] == '=')) {
            if (word[n] == '=') {
                cmd->report_path = word + n + 1;
            } else if (i + 1 < words.size()) {
                cmd->report_path = words[++i];
            } else {
                fprintf(stderr, "%s: option '%s' requires an argument\n", argv[0], kReport);
                cmd->usage_requested = true;
            }
            continue;
        }
        kept.push_back(word);
        if (i > 0 && takes_next_word(word) && i + 1 < words.size())
            kept.push_back(words[++i]);
    }
    kept.push_back(nullptr);
    return kept;
}

void parse_options(int argc, char **argv, cmdline *cmd)
{
    std::vector<char *> words = take_report_option(argc, argv, cmd);
    argc = static_cast<int>(words.size()) - 1;
    argv = words.data();
    int c;
    while ((c = getopt_long(argc, argv, "hsp:UP:u:Cw:m:t:r", long_options, nullptr)) != -1) {
        switch (c) {
        case 's':
            cmd->show = true;
            break;
        case 'p':
            cmd->ubi_id = static_cast<int32_t>(strtol(optarg, nullptr, 10));
            break;
        case 'U':
            cmd->upgrade = true;
            break;
        case 'P':
            cmd->ptn_table_path = optarg;
            break;
        case 'u':
            cmd->up_path = optarg;
            break;
        case 'C':
            cmd->check = true;
            break;
        case 'w':
            cmd->work_mode = optarg;
            break;
        case 'm':
            // Once a digest is supplied, it replaces the one computed from the image
            // for the rest of the run, even if this file cannot be read.
            digest_from_image = 0;
            vireo_check_md5(optarg);
            break;
        case 't':
            cmd->head_path = optarg;
            cmd->head_result = vireo_check_head_rsa(optarg);
            break;
        case 'r':
            cmd->roll_back = true;
            break;
        default: // -h, and '?' for an unknown option or a missing argument
            cmd->usage_requested = true;
            break;
        }
    }
    if (!cmd->work_mode)
        cmd->work_mode = "default";
}

bool is_ubi_mode(const cmdline &cmd)
{
    return strcmp(cmd.work_mode, "ubi") == 0;
}

// Keeps the kernel's out-of-memory killer away from a process that is writing flash.
void protect_from_oom_killer()
{
    char path[200];
    if (vireo_platform_path(path, sizeof(path), VIREO_OOM_ADJ_FMT, static_cast<long>(getpid())) < 0)
        return;
    char command[256];
    snprintf(command, sizeof(command), "echo -1000 > %s", path);
    fflush(stdout);
    if (system(command) == -1) {
        // The outcome of the shell command is not examined.
    }
}

// Runs a command with its report and progress line, when asked for; returns its exit status.
// file: the firmware file (none for a roll-back).
template <typename F>
int with_report(const cmdline &cmd, const char *command, const char *file, F &&run)
{
    if (cmd.report_path)
        vireo_report_open(cmd.report_path);
    vireo_progress_open();
    vireo_report_start(command, file, cmd.work_mode);
    const int32_t result = run();
    // A roll-back's own failure does not change the exit status.
    const int32_t status = strcmp(command, "roll-back") == 0 ? 0 : result;
    vireo_report_result(status, result);
    vireo_report_close();
    return status;
}

} // namespace

void usage()
{
    printf("Usage:\n");
    printf("./vireo_firmware_upgrade -C -u up.bin [ -w ubi -p 0 ]\n");
    printf("./vireo_firmware_upgrade -U -u up.bin [ -w ubi -p 0 ]\n");
    printf("\n");
#if VIREO_SIGNATURE_REQUIRE
    // Only this build's usage says more: the default build's text is part of its interface.
    printf("This build requires, beside the RSA signature, an Ed25519 signature by a key of\n"
           "its key ring in the firmware header's signature block (-t, -C, -U).\n"
           "-m DIGEST supplies the digests for -t only (the 16-byte MD5, then the 64-byte\n"
           "prehash, as vireo_firmware_pack digest writes them): -C and -U always verify\n"
           "the whole file, -m or not.\n"
           "\n");
#endif
}

int lock_pid_file(const char *path)
{
    const int fd = open(path, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        fprintf(stderr, "can't open file %s\n", path);
        return -1;
    }
    struct flock lock;
    memset(&lock, 0, sizeof(lock));
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) < 0) {
        const int err = errno;
        if (err == EACCES || err == EAGAIN) {
            fprintf(stderr, "file: %s already locked\n", path);
            close(fd);
            return 1;
        }
        fprintf(stderr, "can't lock %s: %s\n", path, strerror(err));
        close(fd);
        return -1;
    }
    char pid[32];
    const long self = static_cast<long>(getpid());
    snprintf(pid, sizeof(pid), "%ld", self);
    // The PID and its terminating NUL, nothing else.
    const size_t len = strlen(pid) + 1;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid, len, 0) != static_cast<ssize_t>(len)) {
        fprintf(stderr, "can't lock %s: %s\n", path, strerror(errno));
        close(fd);
        return -1;
    }
    printf("file: %s is locked by %ld\n", path, self);
    // The descriptor stays open: the lock lasts until the process exits.
    return 0;
}

int vireo_firmware_upgrade_main(int argc, char **argv)
{
    if (argc <= 1) {
        usage();
        return -1;
    }
    cmdline cmd{};
    parse_options(argc, argv, &cmd);

    if (cmd.usage_requested) {
        usage();
        return 0;
    }
    if (cmd.roll_back)
        return with_report(cmd, "roll-back", nullptr, [&cmd] {
            return vireo_firmware_roll_back_ubi(static_cast<uint32_t>(cmd.ubi_id));
        });
    if (cmd.head_path)
        return cmd.head_result;
    if (cmd.show) {
        if (!cmd.ptn_table_path) {
            usage();
            return -1;
        }
        show_ptn_table(cmd.ptn_table_path);
        return 0;
    }
    if (cmd.check)
        return with_report(cmd, "check", cmd.up_path, [&cmd] {
            if (is_ubi_mode(cmd))
                return vireo_firmware_check_ubi(static_cast<uint32_t>(cmd.ubi_id), cmd.up_path);
            return vireo_firmware_check(cmd.up_path);
        });

    char pid_path[512];
    if (vireo_platform_path(pid_path, sizeof(pid_path), "%s", VIREO_PID_FILE) < 0 ||
        lock_pid_file(pid_path) != 0) {
        fprintf(stderr, "The program is already running, exit(-1)!\n");
        return -1;
    }
    if (!cmd.upgrade)
        return 0;
    protect_from_oom_killer();
    // The report is opened under the lock: a second run must not truncate the first's.
    return with_report(cmd, "upgrade", cmd.up_path, [&cmd] {
        if (!cmd.up_path) {
            usage();
            return vireo_report_failure("no firmware file given (-u)");
        }
        if (is_ubi_mode(cmd))
            return vireo_firmware_upgrade_ubi(static_cast<uint32_t>(cmd.ubi_id), cmd.up_path);
        return vireo_firmware_upgrade(cmd.up_path);
    });
}
