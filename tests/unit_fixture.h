// SPDX-License-Identifier: Apache-2.0
// Helpers of the module tests: partition tables built from text.
#pragma once

#include "ptn/vireo_ptn.h"
#include "test_util.h"

#include <memory>
#include <string>

using ptn_table_ptr = std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)>;

// The partition table json describes, or none; the build's traces go to *out.
inline ptn_table_ptr ptn_table_of(const std::string &json, std::string *out = nullptr)
{
    return ptn_table_ptr(
        quietly([&] { return vireo_ptn_build_by_json_data(json.data(), int32_t(json.size())); },
                out),
        vireo_ptn_destroy);
}
