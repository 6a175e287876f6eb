// SPDX-License-Identifier: MIT
#include "DeviceModel.h"

#include <zlib.h>

#include <cstring>

#include "DeviceCodec.h"
#include "Vyrix_Opcodes.h"
#include "vyrix_rc.h"

namespace vyrix::sim {

namespace {
constexpr unsigned kStorageCopies = 3;
constexpr uint32_t kFactory = 2;
constexpr size_t kMaxEvents = 1000;
constexpr char kInfoText[] = "VYRIX-LSE-SIM-01";  // 16 characters
constexpr uint32_t kSerialNumber = 0x00A1B2C3;
constexpr uint32_t kHardwareRevision = 3;
constexpr uint32_t kFirmwareMajor = 1;

// A setting: its Set and Get opcodes, the sub-index bytes that pick one of
// several values (a channel, a selector pair, an entry) and the value's
// width.  Set parameters: sub-index, value, storage; Get: sub-index,
// storage; the reply carries the value as the Set sent it.
struct SettingSpec {
    uint8_t setOp, getOp;
    size_t keyBytes, valueBytes;
    std::vector<uint8_t> factory;  // factory value (per sub-index the same)
};

std::vector<uint8_t> Le32Bytes(uint32_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}
std::vector<uint8_t> FloatBytes(float f) {
    uint32_t bits;
    memcpy(&bits, &f, sizeof bits);
    return Le32Bytes(bits);
}
uint32_t Le32At(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}
void Append(std::vector<uint8_t>& out, const std::vector<uint8_t>& more) {
    out.insert(out.end(), more.begin(), more.end());
}
void Append16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

const std::vector<SettingSpec>& SettingTable() {
    static const std::vector<SettingSpec> settings = {
        {eOP_SET_INPUT_VIDEO_STATE, eOP_GET_INPUT_VIDEO_STATE, 0, 4, Le32Bytes(1)},
        {eOP_SET_COLOR_MODE, eOP_GET_COLOR_MODE, 0, 4, Le32Bytes(0)},
        {eOP_SET_FLIP_STATE, eOP_GET_FLIP_STATE, 0, 4, Le32Bytes(0)},
        {eOP_SET_OUTPUT_VIDEO_STATE, eOP_GET_OUTPUT_VIDEO_STATE, 0, 4, Le32Bytes(1)},
        {eOP_SET_COLOR_ALIGNMENT, eOP_GET_COLOR_ALIGNMENT, 8, 4, FloatBytes(0.0f)},
        {eOP_SET_COLOR_CONVERTER, eOP_GET_COLOR_CONVERTER, 4, 4, Le32Bytes(0)},
        {eOP_SET_VIDEO_GAMMA_BOOST, eOP_GET_VIDEO_GAMMA_BOOST, 4, 4, Le32Bytes(0)},
        {eOP_SET_GAMMA, eOP_GET_GAMMA, 4, 4, FloatBytes(2.2f)},
        {eOP_SET_BRIGHTNESS, eOP_GET_BRIGHTNESS, 0, 1, {80}},
        {eOP_SET_BIPHASE, eOP_GET_BIPHASE, 0, 2, {0, 0}},
        {eOP_SET_SENSING_STATE, eOP_GET_SENSING_STATE, 0, 4, Le32Bytes(0)},
        {eOP_SET_MICROWEAVE, eOP_GET_MICROWEAVE, 0, 4, Le32Bytes(1)},
        {eOP_SET_FRAME_RATE_MODE, eOP_GET_FRAME_RATE_MODE, 0, 12, {0, 0, 0, 0, 60, 0, 0, 0, 0, 0, 0, 0}},
    };
    return settings;
}

const SettingSpec* SpecFor(uint8_t opcode) {
    for (const SettingSpec& setting : SettingTable())
        if (setting.setOp == opcode || setting.getOp == opcode) return &setting;
    return nullptr;
}

Answer Refused(Vyrix_ReturnCodeE code) { return Answer{false, VYRIX_RESULT(code), {}}; }
}  // namespace

DeviceModel::DeviceModel() : start_(std::chrono::steady_clock::now()) {
    firmware_.version = kFirmwareMajor << 16;
    Log(kEventPowerOn, 0, 0, 0);
}

uint32_t DeviceModel::Seconds() const {
    return static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_).count());
}

void DeviceModel::Log(uint16_t code, uint32_t detail, uint16_t opcode, uint16_t extra) {
    events_.push_back(Event{code, ++eventSequence_, Seconds(), detail, opcode, extra});
    if (events_.size() > kMaxEvents) events_.erase(events_.begin());
}

Answer DeviceModel::Handle(const std::vector<uint8_t>& command) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++commands_;
    if (command.size() < 4) return Refused(eVYRIX_INVALID_DATA);
    return HandleLocked(command[3], command.data() + 4, command.size() - 4);
}

DeviceModel::Setting& DeviceModel::SettingFor(const Key& key, size_t valueWidth) {
    auto it = settings_.find(key);
    if (it != settings_.end()) return it->second;
    const SettingSpec* setting = SpecFor(key.first);
    std::vector<uint8_t> factory = setting ? setting->factory : std::vector<uint8_t>(valueWidth, 0);
    Setting& s = settings_[key];
    for (auto& copy : s.copy) copy = factory;
    return s;
}

Answer DeviceModel::SetSetting(uint8_t opcode, const uint8_t* params, size_t size) {
    const SettingSpec& setting = *SpecFor(opcode);
    if (size != setting.keyBytes + setting.valueBytes + 4) return Refused(eVYRIX_INVALID_DATA);
    const uint32_t storage = Le32At(params + setting.keyBytes + setting.valueBytes);
    if (storage >= kFactory) return Refused(eVYRIX_INVALID_ARGUMENT);
    Key key{setting.getOp, std::vector<uint8_t>(params, params + setting.keyBytes)};
    Setting& s = SettingFor(key, setting.valueBytes);
    s.copy[storage].assign(params + setting.keyBytes, params + setting.keyBytes + setting.valueBytes);
    Log(kEventSettingChanged, storage, opcode, 0);
    return Answer{};
}

Answer DeviceModel::GetSetting(uint8_t opcode, const uint8_t* params, size_t size) {
    const SettingSpec& setting = *SpecFor(opcode);
    if (size != setting.keyBytes + 4) return Refused(eVYRIX_INVALID_DATA);
    const uint32_t storage = Le32At(params + setting.keyBytes);
    if (storage >= kStorageCopies) return Refused(eVYRIX_INVALID_ARGUMENT);
    Key key{setting.getOp, std::vector<uint8_t>(params, params + setting.keyBytes)};
    return Answer{false, 0, SettingFor(key, setting.valueBytes).copy[storage]};
}

Answer DeviceModel::Upgrade(const uint8_t* params, size_t size) {
    // Chunk number, bytes used of this chunk, size of the whole image, then
    // the 4000 chunk bytes.
    if (size != 12 + kUpgradeChunkBytes) return Refused(eVYRIX_INVALID_DATA);
    const uint32_t index = Le32At(params), length = Le32At(params + 4), total = Le32At(params + 8);
    if (length > kUpgradeChunkBytes || total == 0 || static_cast<uint64_t>(index) * kUpgradeChunkBytes + length > total)
        return Refused(eVYRIX_INVALID_ARGUMENT);
    if (index == 0) {
        image_.assign(total, 0);
        firmware_ = Firmware{total, 0, 0, 0, false, firmware_.version};
    }
    if (firmware_.expectedSize != total) return Refused(eVYRIX_INVALID_CALL_STATE);
    memcpy(image_.data() + static_cast<size_t>(index) * kUpgradeChunkBytes, params + 12, length);
    firmware_.receivedBytes += length;
    ++firmware_.chunks;
    Log(kEventUpgradeChunk, index, eOP_UPGRADE_SOFTWARE, static_cast<uint16_t>(length));
    if (firmware_.receivedBytes >= total && !firmware_.complete) {
        firmware_.complete = true;
        firmware_.crc32 = static_cast<uint32_t>(crc32(0, image_.data(), static_cast<uInt>(image_.size())));
        ++firmware_.version;
        Log(kEventUpgradeDone, firmware_.crc32, eOP_UPGRADE_SOFTWARE, 0);
    }
    return Answer{};
}

Answer DeviceModel::EventLog(const uint8_t* params, size_t size) {
    if (size != 2) return Refused(eVYRIX_INVALID_DATA);
    const uint16_t count = static_cast<uint16_t>(params[0] | (params[1] << 8));
    Answer a;
    // Newest first, as many as asked for and kept.
    for (size_t i = 0; i < count && i < events_.size(); ++i) {
        const Event& e = events_[events_.size() - 1 - i];
        Append16(a.values, e.code);
        Append16(a.values, e.sequence);
        Append(a.values, Le32Bytes(e.seconds));
        Append(a.values, Le32Bytes(e.detail));
        Append16(a.values, e.opcode);
        Append16(a.values, e.extra);
    }
    return a;
}

Answer DeviceModel::HandleLocked(uint8_t opcode, const uint8_t* params, size_t size) {
    if (const SettingSpec* setting = SpecFor(opcode))
        return opcode == setting->setOp ? SetSetting(opcode, params, size) : GetSetting(opcode, params, size);
    Answer a;
    switch (opcode) {
        case eOP_GET_INPUT_VIDEO_PROPERTIES:
            Append16(a.values, 1280);
            Append16(a.values, 720);
            Append(a.values, FloatBytes(60.0f));
            return a;
        case eOP_GET_OUTPUT_VIDEO_PROPERTIES:
            Append16(a.values, 1440);
            Append16(a.values, 810);
            Append(a.values, FloatBytes(60.0f));
            return a;
        case eOP_GET_SYSTEM_INFO:
            a.values.assign(kInfoText, kInfoText + 16);
            a.values.push_back('\0');
            for (uint32_t w : {firmware_.version, kSerialNumber, kHardwareRevision, Seconds(), firmware_.chunks,
                               static_cast<uint32_t>(events_.size()), commands_})
                Append(a.values, Le32Bytes(w));
            return a;
        case eOP_GET_SYSTEM_STATUS:
            for (uint32_t w : {static_cast<uint32_t>(kStateRunning), 0u}) Append(a.values, Le32Bytes(w));
            Append(a.values, FloatBytes(41.5f + static_cast<float>(commands_ % 10) * 0.1f));
            for (uint32_t w : {Seconds() / 3600, commands_, pattern_.select, firmware_.receivedBytes, firmware_.crc32})
                Append(a.values, Le32Bytes(w));
            return a;
        case eOP_GET_EVENT_LOG: return EventLog(params, size);
        case eOP_COMMIT_ALL:
            for (auto& entry : settings_) entry.second.copy[1] = entry.second.copy[0];
            Log(kEventCommit, static_cast<uint32_t>(settings_.size()), opcode, 0);
            return a;
        case eOP_RESTORE_FACTORY:
            for (auto& entry : settings_) entry.second.copy[0] = entry.second.copy[1] = entry.second.copy[kFactory];
            Log(kEventFactoryRestore, 0, opcode, 0);
            return a;
        case eOP_UPGRADE_SOFTWARE: return Upgrade(params, size);
        case eOP_DRAW_TEST_PATTERN:
            if (size != 12) return Refused(eVYRIX_INVALID_DATA);
            pattern_ = Pattern{true, Le32At(params), Le32At(params + 4), Le32At(params + 8)};
            Log(kEventTestPattern, pattern_.select, opcode, 0);
            return a;
        case eOP_BULK_IMAGE:
        case eOP_DRAW_TEXT: return a;
        case eOP_TEXT_BOX: {
            const uint16_t n = size >= 2 ? static_cast<uint16_t>(params[0] | (params[1] << 8)) : 0;
            Append16(a.values, static_cast<uint16_t>(n * 8));
            Append16(a.values, 16);
            return a;
        }
        default: Log(kEventBadCommand, opcode, opcode, 0); return Answer{true, VYRIX_RESULT(eVYRIX_NOT_SUPPORTED), {}};
    }
}

std::vector<uint8_t> DeviceModel::Notification(uint16_t code, uint32_t detail) {
    std::lock_guard<std::mutex> lock(mutex_);
    Log(code, detail, 0, 0);
    std::vector<uint8_t> payload = {kMarker, kMarker};
    Append16(payload, code);
    Append(payload, Le32Bytes(detail));
    return payload;
}

DeviceModel::Firmware DeviceModel::FirmwareState() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return firmware_;
}

std::vector<uint8_t> DeviceModel::FirmwareImage() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return image_;
}

DeviceModel::Pattern DeviceModel::LastPattern() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pattern_;
}

std::vector<Event> DeviceModel::Events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

uint32_t DeviceModel::CommandsHandled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

}  // namespace vyrix::sim
