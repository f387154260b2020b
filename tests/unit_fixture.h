// Helpers of the module tests: quiet calls and partition tables built from text.
#pragma once

#include "ptn/vireo_ptn.h"
#include "test_util.h"

#include <memory>
#include <string>

// Calls fn with its standard output caught; the output goes to *out when one is given.
template <typename F>
auto quietly(F &&fn, std::string *out = nullptr)
{
    decltype(fn()) result{};
    const std::string text = capture_stdout([&] { result = fn(); });
    if (out)
        *out = text;
    return result;
}

using ptn_table_ptr = std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)>;

// The partition table json describes, or none; the build's traces go to *out.
inline ptn_table_ptr ptn_table_of(const std::string &json, std::string *out = nullptr)
{
    return ptn_table_ptr(
        quietly([&] { return vireo_ptn_build_by_json_data(json.data(), int32_t(json.size())); },
                out),
        vireo_ptn_destroy);
}
