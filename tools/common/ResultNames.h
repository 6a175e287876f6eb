/* SPDX-License-Identifier: MIT */
// Readable names of result words and device events for the tools.
#ifndef VYRIX_TOOLS_RESULTNAMES_H
#define VYRIX_TOOLS_RESULTNAMES_H

#include <cstdint>
#include <string>

namespace vyrix::tools {

// "eVYRIX_INVALID_ARGUMENT" for a library code, "device status 0x0A00BEEF"
// for a word the device reported.
std::string ResultName(uint32_t result);

// "commit", "upgrade done", ... for an event log code; "event 99" for one
// without a name.
std::string EventName(uint16_t code);

// "standby", "running", "upgrading", "fault" for the state word of the
// system status; "state 9" for one without a name.
std::string StateName(uint32_t state);

}  // namespace vyrix::tools

#endif
