// SPDX-License-Identifier: Apache-2.0
// What a command tells besides its traces: a report for programs (one JSON object per line,
// written to the file of --report) and a progress line for a person (standard error, kept
// up to date only when it is a terminal). Both stay silent until opened, and neither writes
// to standard output or changes a result.
#pragma once

#include <cJSON.h>
#include <cstdarg>
#include <cstdint>

// Opens the report file for writing (truncated; /dev/fd/N names an open descriptor); 0, or
// -1 with the reason on standard error, the command then running without a report.
int32_t vireo_report_open(const char *path);
// Turns the progress line on when standard error is a terminal (and the build keeps it:
// VIREO_TERMINAL_PROGRESS).
void vireo_progress_open();
// Whether a report or a progress line is being kept.
bool vireo_report_on();
// Flushes and closes both.
void vireo_report_close();

// A new event object named event; none when no report is written.
cJSON *vireo_report_event(const char *event);
// Writes the event as one line and deletes it (nothing for none).
void vireo_report_write(cJSON *event);

// "start": the command ("check", "upgrade", "roll-back"), the file (none for a roll-back)
// and the work mode. A check writes no "progress" events.
void vireo_report_start(const char *command, const char *file, const char *work_mode);
// "result": the exit status (0 or 255) and, when the command failed, the message of the
// trace that decided it. command_result is the command's own result, which differs from
// the status for a roll-back.
void vireo_report_result(int32_t status, int32_t command_result);

// Work done from here on, in bytes, for percent: set once the plan is known. Before, percent
// stays where it is; after, it runs over these bytes from where it was to 100.
void vireo_progress_plan(uint64_t total);
// A new item of work: its phase ("verifying", "flags", "moving", "erasing", "writing",
// "reading back", "copying user data"), the partition or volume, its bytes. counted: its
// bytes are part of the plan's total.
void vireo_progress_item(const char *phase, const char *item, uint64_t total, bool counted = true);
// done bytes of the current item handled (never more than its total).
void vireo_progress_done(uint64_t done);
// The current item handled whole.
void vireo_progress_item_done();

// Percent of the whole command so far, 0 to 100 (for the tests).
double vireo_progress_percent();

// Called by the trace facility with each trace message; keeps the first that tells of a
// failure or refusal since the last mark.
void vireo_report_trace(const char *fmt, va_list ap);
// From here on a failure's message is the first failure traced after this point: what
// failed before was overcome (an image refused, the next one taken).
void vireo_report_mark();
// A failure no trace tells: message becomes the result's; returns -1.
int32_t vireo_report_failure(const char *message);
// The first failure traced since the last mark, else the one before ("" when none).
const char *vireo_report_first_trace();
