// The records that cross the interface have the layout the device and the
// application rely on.
#include <gtest/gtest.h>

#include <cstddef>

#include "Vyrix_Api.h"
#include "Vyrix_LLC_Api_Ex.h"

namespace {

TEST(Layout, ResultWordsAndCodes) {
    EXPECT_EQ(sizeof(Vyrix_ReturnStatus), 4u);
    EXPECT_EQ(eVYRIX_MAX_RETURN_CODE_ENUM, 29);
    EXPECT_EQ(eVYRIX_NOT_CONNECTED, 22);
    EXPECT_EQ(eVYRIX_RECONNECT_FAILED, 28);
    EXPECT_EQ(VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT), 0x05000000u);
    EXPECT_EQ(VYRIX_CODE(0x17000123u), 23u);
}

TEST(Layout, PacketRecord) {
    EXPECT_EQ(offsetof(KtXlnkMsgS, sourceID), 0u);
    EXPECT_EQ(offsetof(KtXlnkMsgS, deviceID), 1u);
    EXPECT_EQ(offsetof(KtXlnkMsgS, priority), 2u);
    EXPECT_EQ(offsetof(KtXlnkMsgS, protocolID), 3u);
    EXPECT_EQ(offsetof(KtXlnkMsgS, payloadLen), 4u);
    EXPECT_EQ(sizeof(((KtXlnkMsgS*)nullptr)->payloadLen), 2u);
    EXPECT_EQ(sizeof(DWORD), sizeof(unsigned long));
    EXPECT_EQ(KT_XLNK_MAX_PAYLOAD, 4095);
}

TEST(Layout, ConnectionRecords) {
    EXPECT_EQ(sizeof(Vyrix_ConnectionTypeE), 4u);
    EXPECT_EQ(offsetof(Vyrix_ConnectionInfoS, connectionType), 0u);
    EXPECT_EQ(offsetof(Vyrix_ConnectionInfoS, uartInfo), offsetof(Vyrix_ConnectionInfoS, usbInfo));
    EXPECT_EQ(offsetof(Vyrix_ConnectionInfoS, usbInfo), offsetof(Vyrix_ConnectionInfoS, bthInfo));
    EXPECT_LT(offsetof(Vyrix_UartInfoS, pPortName), offsetof(Vyrix_UartInfoS, baudRate));
    EXPECT_LT(offsetof(Vyrix_UartInfoS, baudRate), offsetof(Vyrix_UartInfoS, flowControl));
    EXPECT_LT(offsetof(Vyrix_UartInfoS, flowControl), offsetof(Vyrix_UartInfoS, stopBits));
    EXPECT_LT(offsetof(Vyrix_USBInfoS, productID), offsetof(Vyrix_USBInfoS, pSerialNumber));
    EXPECT_LT(offsetof(Vyrix_BTHInfoS, pMacID), offsetof(Vyrix_BTHInfoS, pPassKey));
}

TEST(Layout, ParameterRecord) {
    EXPECT_EQ(offsetof(Vyrix_DataS, type), 0u);
    EXPECT_EQ(sizeof(Vyrix_DataTypeE), 4u);
    EXPECT_EQ(eDATA_BUFFER, 8);
    EXPECT_EQ(eDATA_FLOAT, 7);
    EXPECT_EQ(sizeof(Vyrix_ValueStorageTypeE), 4u);
}

TEST(Layout, DeviceRecords) {
    EXPECT_EQ(sizeof(Vyrix_EventLogEntryS), 16u);
    EXPECT_EQ(offsetof(Vyrix_EventLogEntryS, field3), 4u);
    EXPECT_EQ(offsetof(Vyrix_EventLogEntryS, field5), 12u);
    EXPECT_EQ(sizeof(((Vyrix_SystemInfoS*)nullptr)->infoText), 17u);
    EXPECT_LT(offsetof(Vyrix_SystemInfoS, infoText), offsetof(Vyrix_SystemInfoS, infoWord1));
    EXPECT_EQ(offsetof(Vyrix_SystemStatusS, statusValue), 8u);
    EXPECT_EQ(sizeof(Vyrix_SystemStatusS), 32u);
    EXPECT_EQ(offsetof(Vyrix_VideoPropertiesS, frameRate), 4u);
    EXPECT_EQ(sizeof(Vyrix_FrameRateS), 12u);
    EXPECT_EQ(sizeof(Vyrix_PointS), 4u);
    EXPECT_EQ(sizeof(Vyrix_RectSizeS), 4u);
    EXPECT_EQ(sizeof(Vyrix_ColorS), 4u);
    EXPECT_EQ(offsetof(Vyrix_LibraryInfoS, build), 4u);
}

TEST(Layout, EnumerationRecords) {
    EXPECT_EQ(sizeof(((Vyrix_BTHDiscoveryInfo*)nullptr)->uniqueID), 25u);
    EXPECT_EQ(sizeof(((Vyrix_BTHDiscoveryInfo*)nullptr)->friendlyName), 249u);
    EXPECT_EQ(offsetof(Vyrix_BTHDiscoveryInfo, friendlyName), 25u);
    EXPECT_EQ(offsetof(Vyrix_EnumerateUSBInfo, serialNumber), 4u);
    EXPECT_EQ(sizeof(((Vyrix_EnumerateUSBInfo*)nullptr)->serialNumber), 255u);
}

}  // namespace
