// SPDX-License-Identifier: MIT
#include "ResultNames.h"

#include "DeviceModel.h"
#include "Vyrix_Api.h"

namespace vyrix::tools {

std::string ResultName(uint32_t result) { return Vyrix_GetResultName(static_cast<Vyrix_ReturnStatus>(result)); }

std::string EventName(uint16_t code) {
    switch (code) {
        case vyrix::sim::kEventPowerOn: return "power on";
        case vyrix::sim::kEventCommit: return "commit";
        case vyrix::sim::kEventFactoryRestore: return "factory restore";
        case vyrix::sim::kEventTestPattern: return "test pattern";
        case vyrix::sim::kEventUpgradeChunk: return "upgrade chunk";
        case vyrix::sim::kEventUpgradeDone: return "upgrade done";
        case vyrix::sim::kEventSettingChanged: return "setting changed";
        case vyrix::sim::kEventBadCommand: return "bad command";
        default: return "event " + std::to_string(code);
    }
}

std::string StateName(uint32_t state) {
    switch (state) {
        case vyrix::sim::kStateStandby: return "standby";
        case vyrix::sim::kStateRunning: return "running";
        case vyrix::sim::kStateUpgrading: return "upgrading";
        case vyrix::sim::kStateFault: return "fault";
        default: return "state " + std::to_string(state);
    }
}

}  // namespace vyrix::tools
