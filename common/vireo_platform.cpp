// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

static std::string &root_prefix()
{
    static std::string root;
    return root;
}

void vireo_platform_set_root(const char *root)
{
    root_prefix() = root ? root : "";
    // A trailing slash would double the one every fixed path starts with.
    while (!root_prefix().empty() && root_prefix().back() == '/')
        root_prefix().pop_back();
}

const char *vireo_platform_root()
{
    return root_prefix().c_str();
}

int vireo_platform_path(char *buf, size_t size, const char *fmt, ...)
{
    const std::string &root = root_prefix();
    char tail[1024];
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(tail, sizeof(tail), fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tail))
        return -1;
    return snprintf(buf, size, "%s%s", root.c_str(), tail);
}

const char *vireo_platform_strip_root(const char *path)
{
    const std::string &root = root_prefix();
    if (!root.empty() && strncmp(path, root.c_str(), root.size()) == 0)
        return path + root.size();
    return path;
}
