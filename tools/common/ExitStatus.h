/* SPDX-License-Identifier: MIT */
// The exit statuses of vyrixctl, vyrix-sim and vyrix-demo: one table for
// all three, shown in each program's --help.
#ifndef VYRIX_TOOLS_EXITSTATUS_H
#define VYRIX_TOOLS_EXITSTATUS_H

namespace vyrix::tools {

constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;        // a command failed: the device or the library refused it, or no answer
constexpr int kExitUsage = 2;         // an option or value is wrong; nothing was opened or sent
constexpr int kExitNoDevice = 3;      // the device could not be opened: not found, busy, no permission
constexpr int kExitSignalBase = 128;  // + the signal: 130 SIGINT, 143 SIGTERM

constexpr char kExitStatusHelp[] =
    "Exit status: 0 success; 1 a command failed (refused by the device or the library, or no answer); "
    "2 a usage error (nothing was opened or sent); 3 the device could not be opened (not found, in use, "
    "no permission); 130 or 143 ended by SIGINT or SIGTERM.";

}  // namespace vyrix::tools

#endif
