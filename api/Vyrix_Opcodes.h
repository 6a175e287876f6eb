/* SPDX-License-Identifier: MIT */
// The device's command opcodes, in one place: the library's operations and
// the device simulator both use this table.
#ifndef VYRIX_OPCODES_H
#define VYRIX_OPCODES_H

#include <cstdint>

enum VyrixOpcodeE : uint8_t {
    eOP_SET_INPUT_VIDEO_STATE = 10,
    eOP_GET_INPUT_VIDEO_STATE = 11,
    eOP_SET_COLOR_MODE = 12,
    eOP_GET_COLOR_MODE = 13,
    eOP_SET_FLIP_STATE = 14,
    eOP_GET_FLIP_STATE = 15,
    eOP_SET_OUTPUT_VIDEO_STATE = 16,
    eOP_GET_OUTPUT_VIDEO_STATE = 17,
    eOP_SET_COLOR_ALIGNMENT = 19,
    eOP_GET_COLOR_ALIGNMENT = 20,
    eOP_SET_COLOR_CONVERTER = 21,
    eOP_GET_COLOR_CONVERTER = 22,
    eOP_SET_VIDEO_GAMMA_BOOST = 27,
    eOP_GET_VIDEO_GAMMA_BOOST = 28,
    eOP_UPGRADE_SOFTWARE = 30,
    eOP_RESTORE_FACTORY = 31,
    eOP_COMMIT_ALL = 33,
    eOP_SET_GAMMA = 37,
    eOP_GET_GAMMA = 38,
    eOP_GET_SYSTEM_INFO = 39,
    eOP_GET_SYSTEM_STATUS = 40,
    eOP_SET_BRIGHTNESS = 41,
    eOP_GET_BRIGHTNESS = 42,
    eOP_SET_BIPHASE = 43,
    eOP_GET_BIPHASE = 44,
    eOP_DRAW_TEST_PATTERN = 45,
    eOP_SET_SENSING_STATE = 46,
    eOP_GET_SENSING_STATE = 47,
    eOP_GET_INPUT_VIDEO_PROPERTIES = 60,
    eOP_SET_MICROWEAVE = 69,
    eOP_GET_MICROWEAVE = 70,
    eOP_GET_OUTPUT_VIDEO_PROPERTIES = 71,
    eOP_SET_FRAME_RATE_MODE = 76,
    eOP_GET_FRAME_RATE_MODE = 77,
    eOP_GET_EVENT_LOG = 85,
    eOP_BULK_IMAGE = 0x60,
    eOP_DRAW_TEXT = 0x61,
    eOP_TEXT_BOX = 0x62
};

// Sizes the device and the library agree on.
constexpr unsigned kSystemInfoTextBytes = 17;
constexpr unsigned kEventLogEntryBytes = 16;
constexpr uint16_t kEventLogMaxCount = 255;
constexpr uint32_t kUpgradeChunkBytes = 4000;

#endif  // VYRIX_OPCODES_H
