// SPDX-License-Identifier: Apache-2.0
// The command line of vireo_firmware_upgrade: options, dispatch, PID lock and viewer.
#pragma once

// Reads the options, runs one command and returns the process exit status.
int vireo_firmware_upgrade_main(int argc, char **argv);

// Prints the usage text on standard output.
void usage();

// Non-blocking write lock on the PID file: 0 locked, 1 held by another process, -1 error.
int lock_pid_file(const char *path);

// -s -P FILE: loads a partition-table document, prints it and its re-encoded JSON.
void show_ptn_table(const char *path);
