/* SPDX-License-Identifier: MIT */
// A coherent model of the display engine: settings kept per storage type
// (current, saved, factory), commit and factory restore, identity and status,
// an event log that grows as things happen, firmware reassembled from the
// upgrade chunks, and the last test pattern drawn.  Thread-safe.
#ifndef VYRIX_SIM_DEVICEMODEL_H
#define VYRIX_SIM_DEVICEMODEL_H

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vyrix::sim {

struct Answer {
    bool errorReply = false;      // reply type 2
    uint32_t status = 0;          // reply status word
    std::vector<uint8_t> values;  // after the status word
};

struct Event {
    uint16_t code;
    uint16_t sequence;
    uint32_t seconds;
    uint32_t detail;
    uint16_t opcode;
    uint16_t extra;
};

enum EventCode : uint16_t {
    kEventPowerOn = 1,
    kEventCommit = 2,
    kEventFactoryRestore = 3,
    kEventTestPattern = 4,
    kEventUpgradeChunk = 5,
    kEventUpgradeDone = 6,
    kEventSettingChanged = 7,
    kEventBadCommand = 8
};

// What the first word of the system status says the device is doing.
enum DeviceState : uint32_t { kStateStandby = 0, kStateRunning = 1, kStateUpgrading = 2, kStateFault = 3 };

class DeviceModel {
public:
    DeviceModel();

    // Answers one command payload (markers, sequence, opcode, parameters).
    Answer Handle(const std::vector<uint8_t>& command);

    struct Firmware {
        uint32_t expectedSize = 0;
        uint32_t receivedBytes = 0;
        uint32_t chunks = 0;
        uint32_t crc32 = 0;
        bool complete = false;
        uint32_t version = 0;
    };
    Firmware FirmwareState() const;
    std::vector<uint8_t> FirmwareImage() const;

    struct Pattern {
        bool drawn = false;
        uint32_t select = 0, param1 = 0, param2 = 0;
    };
    Pattern LastPattern() const;
    std::vector<Event> Events() const;
    uint32_t CommandsHandled() const;

    // A connectionless message the device may send on its own: a status
    // notification (event code, detail).
    std::vector<uint8_t> Notification(uint16_t code, uint32_t detail);

private:
    using Key = std::pair<uint8_t, std::vector<uint8_t>>;  // Get opcode, sub-index bytes
    struct Setting {
        std::vector<uint8_t> copy[3];  // current, saved, factory
    };
    Answer HandleLocked(uint8_t opcode, const uint8_t* params, size_t size);
    Answer SetSetting(uint8_t opcode, const uint8_t* params, size_t size);
    Answer GetSetting(uint8_t opcode, const uint8_t* params, size_t size);
    Answer Upgrade(const uint8_t* params, size_t size);
    Answer EventLog(const uint8_t* params, size_t size);
    Setting& SettingFor(const Key& key, size_t valueWidth);
    void Log(uint16_t code, uint32_t detail, uint16_t opcode, uint16_t extra);
    uint32_t Seconds() const;

    mutable std::mutex mutex_;
    std::map<Key, Setting> settings_;
    std::vector<Event> events_;
    uint16_t eventSequence_ = 0;
    Firmware firmware_;
    std::vector<uint8_t> image_;
    Pattern pattern_;
    uint32_t commands_ = 0;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace vyrix::sim

#endif
