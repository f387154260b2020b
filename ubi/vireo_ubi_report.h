// SPDX-License-Identifier: Apache-2.0
// The report's "plan" of the commands of work mode "ubi": what an upgrade or a roll-back
// will write, the two images' scores and versions. Read without traces, and only when a
// report or a progress line is kept.
#pragma once

#include "firmware/vireo_firmware_up_ptn_table.h"

#include <cstdint>

// The plan of installing the image whose table is table on UBI device ubi_num; install is
// false when the image is the one installed already (nothing is written).
void vireo_report_plan_ubi(uint32_t ubi_num, const up_ptn_table *table, bool install);
// The plan of a roll-back: the backup's flag volume rewritten with a score above the
// primary's.
void vireo_report_plan_roll_back(uint32_t ubi_num);
