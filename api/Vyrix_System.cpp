// SPDX-License-Identifier: MIT
// System information, status, event log and maintenance of the device.
#include "Vyrix_Operation.h"

using namespace op;

namespace {
constexpr unsigned kInfoWords = 7;

void StoreSystemInfo(const unsigned char* at, Vyrix_SystemInfoS* info) {
    memcpy(info->infoText, at, kSystemInfoTextBytes);
    info->infoText[kSystemInfoTextBytes - 1] = '\0';  // the 17th byte is dropped
    at += kSystemInfoTextBytes;
    uint32_t* words[kInfoWords] = {&info->infoWord1, &info->infoWord2, &info->infoWord3, &info->infoWord4,
                                   &info->infoWord5, &info->infoWord6, &info->infoWord7};
    for (uint32_t* word : words) {
        *word = Le32(at);
        at += 4;
    }
}

void StoreEventLog(const unsigned char* at, uint16_t count, Vyrix_EventLogEntryS* entries) {
    for (uint16_t i = 0; i < count; ++i, at += kEventLogEntryBytes) {
        Vyrix_EventLogEntryS& e = entries[i];
        StoreValues(at,
                    {Out(&e.field1), Out(&e.field2), Out(&e.field3), Out(&e.field4), Out(&e.field5), Out(&e.field6)});
    }
}
}  // namespace

extern "C" {

Vyrix_ReturnStatus Vyrix_GetSystemInfo(void* handle, Vyrix_SystemInfoS* info) {
    return Query(handle, handle && info, eOP_GET_SYSTEM_INFO, {},
                 [info](const unsigned char* at) { StoreSystemInfo(at, info); });
}

Vyrix_ReturnStatus Vyrix_GetSystemStatus(void* handle, Vyrix_SystemStatusS* status) {
    if (handle == nullptr || status == nullptr) return Get(handle, false, eOP_GET_SYSTEM_STATUS, {}, {});
    Vyrix_SystemStatusS& s = *status;
    return Get(handle, true, eOP_GET_SYSTEM_STATUS, {},
               {Out(&s.statusWord1), Out(&s.statusWord2), Out(&s.statusValue), Out(&s.statusWord3), Out(&s.statusWord4),
                Out(&s.statusWord5), Out(&s.statusWord6), Out(&s.statusWord7)});
}

Vyrix_ReturnStatus Vyrix_GetEventLog(void* handle, uint16_t count, Vyrix_EventLogEntryS* entries) {
    return Query(handle, handle && entries && count <= kEventLogMaxCount, eOP_GET_EVENT_LOG, {U16(count)},
                 [count, entries](const unsigned char* at) { StoreEventLog(at, count, entries); });
}

Vyrix_ReturnStatus Vyrix_RestoreFactorySettings(void* handle) {
    return Get(handle, handle != nullptr, eOP_RESTORE_FACTORY, {}, {});
}

Vyrix_ReturnStatus Vyrix_CommitAll(void* handle) { return Get(handle, handle != nullptr, eOP_COMMIT_ALL, {}, {}); }

Vyrix_ReturnStatus Vyrix_UpgradeSoftware(void* handle, uint32_t upgradeParam1, uint32_t chunkLength,
                                         uint32_t upgradeParam3, const uint8_t* chunk) {
    // The whole 4000-byte chunk goes out, whatever chunkLength says.
    Vyrix_DataBufferS data{const_cast<uint8_t*>(chunk), kUpgradeChunkBytes};
    return Get(handle, chunkLength <= kUpgradeChunkBytes && chunk != nullptr, eOP_UPGRADE_SOFTWARE,
               {U32(upgradeParam1), U32(chunkLength), U32(upgradeParam3), Buffer(&data)}, {});
}

}  // extern "C"
