// SPDX-License-Identifier: Apache-2.0
// Settings access with libuci's calls. An OpenWrt build links libuci; elsewhere our own
// reader of the uci file format stands behind the same names, so callers are the same.
#pragma once

#ifdef VIREO_HAVE_LIBUCI
extern "C" {
#include <uci.h>
}
#else
#include "common/vireo_uci_reader.h"
#endif
