// SPDX-License-Identifier: Apache-2.0
#include "sim_util.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

temp_dir::temp_dir()
{
    char name[] = "/tmp/vireo_test_XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error("mkdtemp failed");
    path = name;
}

temp_dir::~temp_dir()
{
    const std::string cmd = "rm -rf '" + path + "'";
    if (system(cmd.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path.c_str());
}

std::string temp_dir::join(const std::string &rel) const
{
    return path + "/" + rel;
}

std::string temp_dir::write(const std::string &rel, const std::string &content) const
{
    const std::string full = join(rel);
    for (size_t pos = full.find('/', path.size() + 1); pos != std::string::npos;
         pos = full.find('/', pos + 1))
        mkdir(full.substr(0, pos).c_str(), 0755);
    write_file(full, content);
    return full;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string pattern(size_t n, int seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>((i * 31 + static_cast<size_t>(seed)) >> 3);
    return s;
}

run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const std::vector<std::string> &env, bool watch_memory)
{
    temp_dir dir;
    const std::string out_path = dir.join("out"), err_path = dir.join("err");
    const std::string anon_log = "VIREO_ANON_LOG=" + dir.join("anon");
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
        dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        for (const std::string &e : env)
            putenv(const_cast<char *>(e.c_str()));
        if (watch_memory)
            putenv(const_cast<char *>(anon_log.c_str()));
        std::vector<char *> argv = {const_cast<char *>(program.c_str())};
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    // What the preloaded library saw from inside the program, when it was loaded.
    long peak = 0;
    std::istringstream seen(watch_memory ? read_file(dir.join("anon")) : "");
    for (long who = 0, kb = 0; seen >> who >> kb;)
        if (who == pid)
            peak = std::max(peak, kb);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_file(out_path),
            read_file(err_path), peak};
}
