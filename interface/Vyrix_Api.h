/* SPDX-License-Identifier: MIT */
/*
 * Vyrix_Api.h - application interface of libVyrix_Api, the host library that
 * controls a laser scanning display engine over USB, a UART line or
 * Bluetooth RFCOMM.
 *
 * Use: Vyrix_OpenLibrary, Vyrix_OpenConnection, any number of device
 * operations, Vyrix_CloseConnection, Vyrix_CloseLibrary.
 *
 * Results.  Every operation returns a 32-bit result word (vyrix_rc.h).  The
 * order of checks is always: library open (else 0x04000000
 * eVYRIX_UNINITIALIZED), then the arguments (else 0x05000000
 * eVYRIX_INVALID_ARGUMENT; nothing is sent), then the work.  A non-zero
 * status word that the device puts in a reply is returned unchanged.  An
 * error reply from the device gives 0x17000000 eVYRIX_COMMUNICATION_ERROR.
 * No exception leaves an operation (0x09000000 eVYRIX_INTERNAL_ERROR).
 * Operations marked "not supported" return 0x02000000 at once and touch
 * nothing, even before the library is opened.
 *
 * Blocking.  Each device operation is one command: it drops stale replies
 * (without waiting), sends, and waits for the reply, which ends the wait as
 * soon as it arrives, for up to about 750 s (Vyrix_SetReplyTimeout sets
 * another time per connection).  A device that goes away (hang-up, unplug,
 * the Bluetooth link ending) ends the wait at once with 0x16000000
 * eVYRIX_NOT_CONNECTED, and so does every later command on that connection;
 * so does closing the connection from another thread.  The library lock is
 * never held while waiting.
 *
 * Connections.  Several devices may be open at once, up to 8 per transport.
 * The handle of an open connection routes the operation's command, its
 * reply and any resend to that connection's device.  Any other non-null
 * handle reaches the first transport with an open port, in the order USB,
 * serial, Bluetooth.
 *
 * Thread safety.  Every function may be called from any thread.  Commands
 * on different connections run in parallel.  Commands on one connection are
 * serialised: a second thread's command waits for its turn (within its own
 * reply time-out, after which it returns 0x07000000 eVYRIX_INCOMPLETE
 * without sending) and gets its own reply, never another command's.
 * Vyrix_CloseLibrary or Vyrix_CloseConnection while other threads run
 * commands ends those commands with 0x16000000 eVYRIX_NOT_CONNECTED (or
 * 0x04000000 eVYRIX_UNINITIALIZED once the library is closed); it never
 * crashes or hangs them.
 *
 * Process life.  A process that exits with connections open exits as it
 * would otherwise: the library closes its ports, restores the terminals and
 * removes its lock files on the way out.  After fork(), the child's copy of
 * the library leaves the parent's devices alone: the connections it
 * inherited report 0x16000000 eVYRIX_NOT_CONNECTED, it may open devices of
 * its own, and it exits at once whichever way it exits.
 *
 * Unprompted messages.  Each link queues at most 65536 messages or 16 MiB
 * of payload that the application has not taken; beyond that the oldest
 * message makes room for the newest, and Vyrix_GetLinkStatistics counts it
 * in messagesDropped.
 */
#ifndef VYRIX_API_H
#define VYRIX_API_H

#include <stddef.h>
#include <stdint.h>

#include "vyrix_rc.h"

/* ---- Library ---------------------------------------------------------- */

typedef struct Vyrix_LibraryInfoS {
    uint8_t majorVersion; /* 1 */
    uint8_t minorVersion; /* 3 */
    uint8_t revision;     /* 0 */
    uint32_t build;       /* 0 */
} Vyrix_LibraryInfoS;
VYRIX_LAYOUT(offsetof(Vyrix_LibraryInfoS, build) == 4);

/* ---- Connections ------------------------------------------------------ */

typedef enum Vyrix_ConnectionTypeE {
    eVYRIX_CONNECTION_UART = 0,
    eVYRIX_CONNECTION_USB = 1,
    eVYRIX_CONNECTION_BTH = 2
} Vyrix_ConnectionTypeE;
VYRIX_LAYOUT(sizeof(Vyrix_ConnectionTypeE) == 4);

/* The texts behind the pointers must stay alive and unchanged until the
 * connection is closed: the library keeps the pointers, not copies. */
typedef struct Vyrix_UartInfoS {
    const char* pPortName; /* device path, e.g. /dev/ttyS0 */
    uint32_t baudRate;     /* must be 57600 */
    int32_t flowControl;   /* 0 or 1 (checked, not used) */
    uint8_t stopBits;      /* 1 or 2 (checked, not used: the line is 8N1) */
} Vyrix_UartInfoS;

typedef struct Vyrix_USBInfoS {
    uint32_t productID;        /* must be 4 */
    const char* pSerialNumber; /* identifies the connection; the port takes the first free device */
} Vyrix_USBInfoS;

typedef struct Vyrix_BTHInfoS {
    const char* pMacID;   /* "00:11:22:33:44:55" */
    const char* pPassKey; /* must not be null; pairing is the host's business */
} Vyrix_BTHInfoS;

typedef struct Vyrix_ConnectionInfoS {
    Vyrix_ConnectionTypeE connectionType;
    union {
        Vyrix_UartInfoS uartInfo;
        Vyrix_USBInfoS usbInfo;
        Vyrix_BTHInfoS bthInfo;
    };
} Vyrix_ConnectionInfoS;
VYRIX_LAYOUT(offsetof(Vyrix_ConnectionInfoS, uartInfo) == offsetof(Vyrix_ConnectionInfoS, bthInfo));
VYRIX_LAYOUT(offsetof(Vyrix_ConnectionInfoS, usbInfo) == offsetof(Vyrix_ConnectionInfoS, bthInfo));
VYRIX_LAYOUT(offsetof(Vyrix_UartInfoS, baudRate) < offsetof(Vyrix_UartInfoS, stopBits));

/* ---- Typed command parameters ----------------------------------------- */

typedef enum Vyrix_DataTypeE {
    eDATA_NONE = 0, /* contributes nothing */
    eDATA_INT8 = 1,
    eDATA_INT16 = 2,
    eDATA_INT32 = 3,
    eDATA_UINT8 = 4,
    eDATA_UINT16 = 5,
    eDATA_UINT32 = 6,
    eDATA_FLOAT = 7,
    eDATA_BUFFER = 8
} Vyrix_DataTypeE;

typedef struct Vyrix_DataBufferS {
    uint8_t* pData;
    uint32_t length;
} Vyrix_DataBufferS;

typedef struct Vyrix_DataS {
    Vyrix_DataTypeE type;
    union {
        int8_t i8;
        int16_t i16;
        int32_t i32;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        float f32;
        Vyrix_DataBufferS* pBuffer;
    } value;
} Vyrix_DataS;
VYRIX_LAYOUT(sizeof(Vyrix_DataTypeE) == 4 && offsetof(Vyrix_DataS, type) == 0);

/* ---- Settings --------------------------------------------------------- */

/* Which copy of a setting an operation reads or writes.  A Set accepts the
 * current and saved copies; a Get also reads the factory copy. */
typedef enum Vyrix_ValueStorageTypeE {
    eVYRIX_STORAGE_CURRENT = 0, /* in effect now, lost at power-off */
    eVYRIX_STORAGE_SAVED = 1,   /* kept across power-off */
    eVYRIX_STORAGE_FACTORY = 2  /* the factory value (read only) */
} Vyrix_ValueStorageTypeE;
VYRIX_LAYOUT(sizeof(Vyrix_ValueStorageTypeE) == 4);

typedef struct Vyrix_VideoPropertiesS {
    uint16_t width;
    uint16_t height;
    float frameRate;
} Vyrix_VideoPropertiesS;
VYRIX_LAYOUT(offsetof(Vyrix_VideoPropertiesS, frameRate) == 4);

typedef struct Vyrix_FrameRateS {
    uint32_t mode; /* 0, 1 or 2 */
    uint32_t param1;
    uint32_t param2;
} Vyrix_FrameRateS;
VYRIX_LAYOUT(sizeof(Vyrix_FrameRateS) == 12);

typedef enum Vyrix_VideoModeHandleE {
    eVYRIX_VIDEO_MODE_0 = 0,
    eVYRIX_VIDEO_MODE_1,
    eVYRIX_VIDEO_MODE_2
} Vyrix_VideoModeHandleE;

typedef struct Vyrix_VideoCaptureInfoS {
    uint16_t width;
    uint16_t height;
    float frameRate;
    uint32_t flags;
} Vyrix_VideoCaptureInfoS;

typedef enum Vyrix_WhitePointE {
    eVYRIX_WHITE_POINT_D65 = 0,
    eVYRIX_WHITE_POINT_D50,
    eVYRIX_WHITE_POINT_NATIVE
} Vyrix_WhitePointE;

typedef enum Vyrix_HorizontalBrightnessCompensationModeE {
    eVYRIX_HBC_OFF = 0,
    eVYRIX_HBC_ON
} Vyrix_HorizontalBrightnessCompensationModeE;

typedef enum Vyrix_SensingDataInterfaceE {
    eVYRIX_SENSING_IF_NONE = 0,
    eVYRIX_SENSING_IF_USB
} Vyrix_SensingDataInterfaceE;

typedef enum Vyrix_ToFDataFormatE { eVYRIX_TOF_FORMAT_RAW = 0, eVYRIX_TOF_FORMAT_POINT_CLOUD } Vyrix_ToFDataFormatE;

/* ---- System ----------------------------------------------------------- */

typedef struct Vyrix_SystemInfoS {
    char infoText[17]; /* at most 16 characters and a NUL */
    uint32_t infoWord1;
    uint32_t infoWord2;
    uint32_t infoWord3;
    uint32_t infoWord4;
    uint32_t infoWord5;
    uint32_t infoWord6;
    uint32_t infoWord7;
} Vyrix_SystemInfoS;
VYRIX_LAYOUT(sizeof(((Vyrix_SystemInfoS*)0)->infoText) == 17 && offsetof(Vyrix_SystemInfoS, infoWord1) == 20);

typedef struct Vyrix_SystemStatusS {
    uint32_t statusWord1;
    uint32_t statusWord2;
    float statusValue;
    uint32_t statusWord3;
    uint32_t statusWord4;
    uint32_t statusWord5;
    uint32_t statusWord6;
    uint32_t statusWord7;
} Vyrix_SystemStatusS;
VYRIX_LAYOUT(offsetof(Vyrix_SystemStatusS, statusValue) == 8 && sizeof(Vyrix_SystemStatusS) == 32);

/* One event log entry: 16 bytes on the wire, in this order. */
typedef struct Vyrix_EventLogEntryS {
    uint16_t field1;
    uint16_t field2;
    uint32_t field3;
    uint32_t field4;
    uint16_t field5;
    uint16_t field6;
} Vyrix_EventLogEntryS;
VYRIX_LAYOUT(sizeof(Vyrix_EventLogEntryS) == 16 && offsetof(Vyrix_EventLogEntryS, field3) == 4);
VYRIX_LAYOUT(offsetof(Vyrix_EventLogEntryS, field5) == 12);

typedef enum Vyrix_PowerStateE { eVYRIX_POWER_ON = 0, eVYRIX_POWER_STANDBY, eVYRIX_POWER_OFF } Vyrix_PowerStateE;

/* ---- Rendering -------------------------------------------------------- */

typedef struct Vyrix_PointS {
    uint16_t x;
    uint16_t y;
} Vyrix_PointS;

typedef struct Vyrix_RectSizeS {
    uint16_t width;
    uint16_t height;
} Vyrix_RectSizeS;

/* Sent in memory order. */
typedef struct Vyrix_ColorS {
    uint8_t red;
    uint8_t green;
    uint8_t blue;
    uint8_t alpha;
} Vyrix_ColorS;
VYRIX_LAYOUT(sizeof(Vyrix_PointS) == 4 && sizeof(Vyrix_RectSizeS) == 4 && sizeof(Vyrix_ColorS) == 4);

typedef enum Vyrix_RenderTargetE {
    eVYRIX_RENDER_TARGET_0 = 0,
    eVYRIX_RENDER_TARGET_1,
    eVYRIX_RENDER_TARGET_OSD
} Vyrix_RenderTargetE;

typedef enum Vyrix_OSDStateE { eVYRIX_OSD_OFF = 0, eVYRIX_OSD_ON } Vyrix_OSDStateE;

/* ---- Time of flight ---------------------------------------------------- */

typedef struct Vyrix_TofFramePropertiesS {
    uint16_t width;
    uint16_t height;
    uint32_t bytesPerPixel;
} Vyrix_TofFramePropertiesS;

#ifdef __cplusplus
extern "C" {
#endif

/* ===== Library lifecycle (no log entries, no blocking) ================== */

/* Open the library; *ppLibHandle receives the handle.  0x18000000 if open
 * already (tested first), 0x05000000 for a null pointer, 0x01000000 if the
 * lock or context cannot be made. */
VYRIX_API Vyrix_ReturnStatus Vyrix_OpenLibrary(void** ppLibHandle);

/* Version 1.3.0 build 0.  0x04000000 not open; 0x05000000 null argument. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetLibraryInfo(void* libHandle, Vyrix_LibraryInfoS* pInfo);

/* Close every connection (oldest first) and the library; it can be opened
 * again.  0x01000000 if a connection failed to close (the library is closed
 * all the same); 0x04000000 not open; 0x05000000 null handle. */
VYRIX_API Vyrix_ReturnStatus Vyrix_CloseLibrary(void* libHandle);

/* ===== Connections ====================================================== */

/* Open a connection: checks the record, refuses a device already connected
 * (0x18000000; serial names compare on 11 characters, USB serial numbers on
 * 100, Bluetooth addresses whole), opens the transport's port (its result is
 * returned unchanged, e.g. 0x18000000 when the transport is open already).
 * UART: name not null, baudRate 57600, flowControl 0/1, stopBits 1/2.  USB:
 * productID 4, serial number not null.  Bluetooth: address and pass key not
 * null.  Otherwise 0x05000000. */
VYRIX_API Vyrix_ReturnStatus Vyrix_OpenConnection(void* libHandle, void** ppConnHandle,
                                                  Vyrix_ConnectionInfoS connectionInfo);

/* Close a connection: 0; 0x05000000 null, unknown or already closed handle
 * (a closed handle is never handed out again for at least the next 65536
 * opens, so it cannot close a newer connection); the port close result (the
 * entry then stays).  Returns within milliseconds: the receive thread is
 * woken and joined.  A command waiting on this connection in another thread
 * returns 0x16000000 eVYRIX_NOT_CONNECTED. */
VYRIX_API Vyrix_ReturnStatus Vyrix_CloseConnection(void* connHandle);

/* Extension.  How long commands on this connection wait for the device's
 * reply, in milliseconds; 0 restores the default of about 750 s.  0; 0x04000000 library not open; 0x05000000 null,
 * unknown or closed handle.  Thread-safe. */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetReplyTimeout(void* connHandle, unsigned int milliseconds);

/* ===== Display and video settings ======================================= *
 * Set: storage 0 or 1, acknowledged by the device; the reply status word is
 * not examined.  Get: storage 0, 1 or 2; the reply status word is returned
 * when non-zero (outputs untouched); an error reply with status 0 fills the
 * outputs and returns 0x17000000; values a short reply lacks read as 0.
 * All reject a null handle or out pointer with 0x05000000.               */

VYRIX_API Vyrix_ReturnStatus Vyrix_GetInputVideoProperties(void* handle, uint16_t* width, uint16_t* height,
                                                           float* frameRate);
/* state 0/1; storage passed on unchecked */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetInputVideoState(void* handle, uint32_t state, uint32_t storage);
/* storage passed on unchecked */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetInputVideoState(void* handle, uint32_t* state, uint32_t storage);
/* brightness 0..100 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetBrightness(void* handle, uint8_t brightness, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetBrightness(void* handle, uint8_t* brightness, Vyrix_ValueStorageTypeE storage);
/* colorMode at most 4 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetColorMode(void* handle, int32_t colorMode, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetColorMode(void* handle, int32_t* colorMode, Vyrix_ValueStorageTypeE storage);
/* gamma 1.0..3.0; channel passed on */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetGamma(void* handle, uint32_t channel, float gamma,
                                            Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetGamma(void* handle, uint32_t channel, float* gamma,
                                            Vyrix_ValueStorageTypeE storage);
/* channel 0..2, mode 0/1 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetVideoGammaBoostMode(void* handle, uint32_t channel, uint32_t mode,
                                                          Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetVideoGammaBoostMode(void* handle, uint32_t channel, uint32_t* mode,
                                                          Vyrix_ValueStorageTypeE storage);
/* mode 0/1 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetMicroWeaveMode(void* handle, uint32_t mode, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetMicroWeaveMode(void* handle, uint32_t* mode, Vyrix_ValueStorageTypeE storage);
/* flipState 0..3 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetFlipState(void* handle, uint32_t flipState, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetFlipState(void* handle, uint32_t* flipState, Vyrix_ValueStorageTypeE storage);
/* state 0/1; storage passed on unchecked */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetOutputVideoState(void* handle, uint32_t state, uint32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetOutputVideoState(void* handle, uint32_t* state, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetOutputVideoProperties(void* handle, Vyrix_VideoPropertiesS* properties);
/* biPhase -100..100 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetBiPhase(void* handle, int16_t biPhase, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetBiPhase(void* handle, int16_t* biPhase, Vyrix_ValueStorageTypeE storage);
/* selector1 0/1, selector2 0..4, offset -32..32 (sent as a float) */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetColorAlignment(void* handle, uint32_t selector1, int32_t selector2,
                                                     int16_t offset, Vyrix_ValueStorageTypeE storage);
/* the device's float is truncated toward zero */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetColorAlignment(void* handle, uint32_t selector1, int32_t selector2,
                                                     int16_t* offset, Vyrix_ValueStorageTypeE storage);
/* index 0..8, value -65536..65535 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetColorConverter(void* handle, int32_t index, int32_t value,
                                                     Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetColorConverter(void* handle, int32_t index, int32_t* value,
                                                     Vyrix_ValueStorageTypeE storage);
/* mode 0..2; params and storage passed on unchecked */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetFrameRateMode(void* handle, Vyrix_FrameRateS frameRate, uint32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetFrameRateMode(void* handle, Vyrix_FrameRateS* frameRate,
                                                    Vyrix_ValueStorageTypeE storage);
/* state 0/1 */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetSensingState(void* handle, uint32_t state, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSensingState(void* handle, uint32_t* state, Vyrix_ValueStorageTypeE storage);

/* ===== System information and maintenance =============================== */

/* 16 characters of text (the device's 17th byte is dropped) and seven words. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSystemInfo(void* handle, Vyrix_SystemInfoS* info);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSystemStatus(void* handle, Vyrix_SystemStatusS* status);
/* The newest count entries (count at most 255) into entries[0..count-1];
 * entries the device did not send read as zeros. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetEventLog(void* handle, uint16_t count, Vyrix_EventLogEntryS* entries);
/* The device's result is returned (its status word when non-zero). */
VYRIX_API Vyrix_ReturnStatus Vyrix_RestoreFactorySettings(void* handle);
VYRIX_API Vyrix_ReturnStatus Vyrix_CommitAll(void* handle);
/* One firmware chunk per call.  chunk must hold 4000 bytes: all 4000 are
 * sent whatever chunkLength (at most 4000) says.  The handle is not checked.
 * Splitting the image and calling in order are the caller's. */
VYRIX_API Vyrix_ReturnStatus Vyrix_UpgradeSoftware(void* handle, uint32_t upgradeParam1, uint32_t chunkLength,
                                                   uint32_t upgradeParam3, const uint8_t* chunk);

/* ===== Rendering ======================================================== */

/* patternSelect at most 4 (no lower bound); parameters passed on. */
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawTestPattern(void* handle, int32_t patternSelect, uint32_t patternParam1,
                                                   uint32_t patternParam2);

/* ===== Time of flight (not supported: 0x02000000) ======================= */

VYRIX_API Vyrix_ReturnStatus Vyrix_GetTofFrameProperties(void* handle, Vyrix_TofFramePropertiesS* pProperties,
                                                         Vyrix_ToFDataFormatE* pFormat);
VYRIX_API Vyrix_ReturnStatus Vyrix_StartFrameCapture(void* handle);
VYRIX_API Vyrix_ReturnStatus Vyrix_StopFrameCapture(void* handle);
VYRIX_API Vyrix_ReturnStatus Vyrix_AcquireTofFrames(void* handle, uint32_t frameCount, uint8_t* pFrameBuffer,
                                                    uint32_t* pFramesAcquired);

#ifdef __cplusplus
} /* extern "C" */

/* ===== Not supported: each returns 0x02000000 at once ==================== *
 * These keep C++ linkage: they exist so that applications written against
 * the full interface link and learn at run time that the feature is absent. */

VYRIX_API Vyrix_ReturnStatus Vyrix_OpenConnectionUSB(void* libHandle, const Vyrix_USBInfoS* pInfo, void** ppConnHandle);
VYRIX_API Vyrix_ReturnStatus Vyrix_OpenConnectionUart(void* libHandle, const Vyrix_UartInfoS* pInfo,
                                                      void** ppConnHandle);

VYRIX_API Vyrix_ReturnStatus Vyrix_SetInputCaptureModeInfo(void* handle, Vyrix_VideoModeHandleE* pMode,
                                                           const Vyrix_VideoCaptureInfoS* pInfo);
VYRIX_API Vyrix_ReturnStatus Vyrix_ModifyInputCaptureModeInfo(void* handle, Vyrix_VideoModeHandleE mode,
                                                              const Vyrix_VideoCaptureInfoS* pInfo);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetInputCaptureModeInfo(void* handle, Vyrix_VideoModeHandleE mode,
                                                           Vyrix_VideoCaptureInfoS* pInfo);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetActiveCaptureMode(void* handle, Vyrix_VideoModeHandleE mode);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetActiveCaptureMode(void* handle, Vyrix_VideoModeHandleE* pMode);
VYRIX_API Vyrix_ReturnStatus Vyrix_CommitInputCaptureMode(void* handle, Vyrix_VideoModeHandleE mode);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetCommitedInputCaptureMode(void* handle, Vyrix_VideoModeHandleE* pMode);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetWhitePoint(void* handle, Vyrix_WhitePointE whitePoint, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetWhitePoint(void* handle, Vyrix_WhitePointE* pWhitePoint,
                                                 Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetKeystoneCorrection(void* handle, int32_t correction, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetKeystoneCorrection(void* handle, int32_t* pCorrection,
                                                         Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetHorizontalBrightnessCompensationMode(
    void* handle, Vyrix_HorizontalBrightnessCompensationModeE mode, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetHorizontalBrightnessCompensationMode(
    void* handle, Vyrix_HorizontalBrightnessCompensationModeE* pMode, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetVerticalScanAngle(void* handle, float angle, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetVerticalScanAngle(void* handle, float* pAngle, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetHorizontalScanAngle(void* handle, float angle, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetHorizontalScanAngle(void* handle, float* pAngle, Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetSplashScreenTimeout(void* handle, uint32_t timeout, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSplashScreenTimeout(void* handle, uint32_t* pTimeout,
                                                          Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetSensingDataInterface(void* handle, Vyrix_SensingDataInterfaceE sensingInterface,
                                                           int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSensingDataInterface(void* handle, Vyrix_SensingDataInterfaceE* pInterface,
                                                           Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetTofDataFormat(void* handle, Vyrix_ToFDataFormatE format, int32_t storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetTofDataFormat(void* handle, Vyrix_ToFDataFormatE* pFormat,
                                                    Vyrix_ValueStorageTypeE storage);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetTofFrameSize(void* handle, uint32_t* pFrameSize);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetTofFrameCount(void* handle, uint32_t* pFrameCount);
VYRIX_API Vyrix_ReturnStatus Vyrix_AcquirePcdFrames(void* handle, uint32_t frameCount, uint32_t* pBuffer,
                                                    uint32_t* pAcquired);

VYRIX_API Vyrix_ReturnStatus Vyrix_SetSystemPowerState(void* handle, Vyrix_PowerStateE state);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetSystemPowerState(void* handle, Vyrix_PowerStateE* pState);
VYRIX_API Vyrix_ReturnStatus Vyrix_SaveAsSplash(void* handle, Vyrix_RenderTargetE target);

VYRIX_API Vyrix_ReturnStatus Vyrix_SetOSDState(void* handle, Vyrix_RenderTargetE target, Vyrix_OSDStateE state);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetOSDState(void* handle, Vyrix_RenderTargetE target, Vyrix_OSDStateE* pState);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetOSDInfo(void* handle, Vyrix_RenderTargetE target, const Vyrix_PointS* pPosition,
                                              const Vyrix_RectSizeS* pSize);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetOSDInfo(void* handle, Vyrix_RenderTargetE target, Vyrix_PointS* pPosition,
                                              Vyrix_RectSizeS* pSize);
VYRIX_API Vyrix_ReturnStatus Vyrix_SetActiveRenderTarget(void* handle, Vyrix_RenderTargetE target);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetActiveRenderTarget(void* handle, Vyrix_RenderTargetE* pTarget);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetDisplayInfo(void* handle, Vyrix_RenderTargetE target, Vyrix_RectSizeS* pSize);
VYRIX_API Vyrix_ReturnStatus Vyrix_LoadBitmapImage(void* handle, Vyrix_RenderTargetE target,
                                                   const Vyrix_PointS* pPosition, const Vyrix_RectSizeS* pSize,
                                                   uint8_t* image, uint8_t format);
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawText(void* handle, Vyrix_RenderTargetE target, const uint8_t* text,
                                            uint16_t length, Vyrix_PointS position, const Vyrix_ColorS* pForeground,
                                            const Vyrix_ColorS* pBackground);
VYRIX_API Vyrix_ReturnStatus Vyrix_GetTextBoxInfo(void* handle, const uint16_t* text, uint16_t length,
                                                  Vyrix_RectSizeS* pSize);
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawPoint(void* handle, Vyrix_RenderTargetE target, const Vyrix_PointS* pPoint,
                                             const Vyrix_ColorS* pColor);
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawLine(void* handle, Vyrix_RenderTargetE target, const Vyrix_PointS* pStart,
                                            const Vyrix_PointS* pEnd, const Vyrix_ColorS* pColor);
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawTriangle(void* handle, Vyrix_RenderTargetE target, const Vyrix_PointS* p1,
                                                const Vyrix_PointS* p2, const Vyrix_PointS* p3,
                                                const Vyrix_ColorS* pColor);
VYRIX_API Vyrix_ReturnStatus Vyrix_DrawRectangle(void* handle, Vyrix_RenderTargetE target,
                                                 const Vyrix_PointS* pPosition, const Vyrix_RectSizeS* pSize,
                                                 const Vyrix_ColorS* pColor);
VYRIX_API Vyrix_ReturnStatus Vyrix_Render(void* handle, Vyrix_RenderTargetE target);
VYRIX_API Vyrix_ReturnStatus Vyrix_ClearTarget(void* handle, Vyrix_RenderTargetE target);

#endif /* __cplusplus */

/* ------------------------------------------------------------------------
 * Extensions
 *
 * Functions of this library beyond the device interface above.  They are
 * exported under plain C names and change nothing the functions above do.
 * ---------------------------------------------------------------------- */
#ifdef __cplusplus
extern "C" {
#endif

/* The name of a result word: "eVYRIX_INVALID_ARGUMENT" for 0x05000000.  A
 * word that carries no library code (any of bits 0..23 set, or a code of
 * eVYRIX_MAX_RETURN_CODE_ENUM or more: a status word of the device) reads
 * as "device status 0x0A00BEEF".
 * Result: never null.  A library code's name is a static string; a device
 * status is written to a buffer of the calling thread, valid until that
 * thread's next call of this function.
 * Thread safety: may be called from any thread at any time, whether the
 * library is open or not. */
VYRIX_API const char* Vyrix_GetResultName(Vyrix_ReturnStatus result);

/* One sentence that says what a result word means, e.g. "An argument is
 * missing or out of range." for 0x05000000.  A status word of the device
 * (as above) reads as "The device reported a status of its own; see the
 * device's documentation."
 * Result: a static string, never null.
 * Thread safety: may be called from any thread at any time. */
VYRIX_API const char* Vyrix_GetResultDescription(Vyrix_ReturnStatus result);

/* Takes the oldest message that the device of this connection sent of its
 * own accord (as KtRemoveConnectionlessMsg does for the first open port), so
 * that an application with several devices can tell their messages apart:
 * in the connectionless callback, take from each connection's handle until
 * it has none.  The payload goes to pPayload (capacity bytes; 0 means 4095),
 * its length to *pLength and, when pSource is not null, the id of the part
 * of the device that sent it (0 or 3) to *pSource.  Does not wait.
 * Results: 0; 0x07000000 none queued; 0x1A000000 the message was longer than
 * the capacity (it is taken, cut to the capacity); 0x16000000 the device is
 * gone and nothing is left; 0x05000000 null pointer, or a handle that is not
 * an open connection; 0x04000000 library not open.
 * Thread safety: any thread, the callback's included. */
VYRIX_API Vyrix_ReturnStatus Vyrix_TakeUnpromptedMessage(void* connHandle, uint8_t* pPayload, uint16_t capacity,
                                                         uint16_t* pLength, uint8_t* pSource);

/* What one connection's link has counted since it opened.  Fields are only
 * ever appended; a packet is a whole framed packet, a byte any byte that
 * crossed the port (USB padding included). */
typedef struct Vyrix_LinkStatisticsS {
    uint64_t packetsSent, packetsReceived; /* resends included in packetsSent */
    uint64_t bytesSent, bytesReceived;
    uint64_t resends;          /* packets sent again at the device's request */
    uint64_t packetsDiscarded; /* damaged packets and false starts given up, replies dropped at the queue bound */
    uint64_t messagesDropped;  /* unprompted messages dropped at the queue bound */
    uint64_t linkDowns;        /* times the link went down (a close is not one) */
} Vyrix_LinkStatisticsS;
VYRIX_LAYOUT(offsetof(Vyrix_LinkStatisticsS, linkDowns) == 56);

/* Copies the counters of a connection's link into *pStats.  Does not wait
 * for the device (nothing is sent).
 * Results: 0; 0x05000000 pStats null, or a handle that is not an open
 * connection; 0x04000000 library not open.
 * Thread safety: any thread, while commands run on the connection; the
 * counters are read one by one, so they may be a command apart. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetLinkStatistics(void* connHandle, Vyrix_LinkStatisticsS* pStats);

/* ---- Connection lifecycle ----------------------------------------------
 * A connection's link is up from a successful Vyrix_OpenConnection.  When
 * the device goes away (hang-up, unplug, the Bluetooth stream ending, a
 * write that finds it gone) the link goes down; with reconnection switched
 * on (Vyrix_SetReconnect) it goes on to reconnecting and, once the same
 * device is back, up again, on the same handle.  An application learns of
 * each change through a callback, through the connection's event
 * descriptor, or by asking.  None of this changes anything for an
 * application that uses none of these functions. */

typedef enum Vyrix_LinkStateE {
    eVYRIX_LINK_UP = 0,          /* commands go to the device */
    eVYRIX_LINK_DOWN = 1,        /* the device is gone; commands return 0x16000000 at once */
    eVYRIX_LINK_RECONNECTING = 2 /* gone, and being looked for; commands return 0x16000000 at once */
} Vyrix_LinkStateE;
VYRIX_LAYOUT(sizeof(Vyrix_LinkStateE) == 4);

/* Called once for every change of a connection's link state, in the order
 * the changes happened, on the library's callback thread (the thread that
 * also runs the connectionless callback; never a receive thread, never the
 * application's).  hConnection is the connection's handle; reason is, for
 * eVYRIX_LINK_DOWN, the result word that ended the link (0x16000000 for a
 * device that went away), and 0 for the other states.  The callback may
 * call any function of the library, wait for commands, or close this or
 * any connection.  After Vyrix_CloseConnection returns, the connection's
 * callback is not called again (and no call of it is still running, unless
 * the close was made by the callback itself).  Changes not yet delivered
 * when the connection closes are dropped. */
typedef void (*Vyrix_LinkStateCallbackFn)(void* hConnection, Vyrix_LinkStateE state, uint32_t reason, void* pUser);

/* The current state of a connection's link into *pState.  It also marks
 * every state change so far as read, so the connection's event descriptor
 * (Vyrix_GetEventFd) stops being readable for them.  Does not wait.
 * Results: 0; 0x05000000 pState null, or a handle that is not an open
 * connection; 0x04000000 library not open.
 * Thread safety: any thread, the callbacks' included. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetLinkState(void* hConnection, Vyrix_LinkStateE* pState);

/* Registers the connection's link-state callback with its user pointer,
 * replacing any earlier one; pfn NULL removes it.  Changes from now on are
 * delivered to the new callback (one already being delivered may still
 * reach the old one).  Does not wait.
 * Results: 0; 0x05000000 a handle that is not an open connection;
 * 0x04000000 library not open.
 * Thread safety: any thread, the callbacks' included. */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetLinkStateCallback(void* hConnection, Vyrix_LinkStateCallbackFn pfn, void* pUser);

/* A descriptor for poll(), select() or epoll that is readable exactly while
 * this connection has an unprompted message waiting (take it with
 * Vyrix_TakeUnpromptedMessage) or a state change that Vyrix_GetLinkState
 * has not yet reported.  It never becomes readable for anything else, so an
 * event loop can drive the connection without a thread of its own: on
 * readable, call Vyrix_GetLinkState and take messages until 0x07000000.
 * Only wait on it for readability; never read, write or close it.  The
 * same descriptor is returned on every call; it is close-on-exec and is
 * closed by Vyrix_CloseConnection (remove it from the event loop first).
 * From the first call on, unprompted messages of this connection are queued
 * for the application even when no connectionless callback is registered.
 * Results: 0; 0x05000000 pFd null, or a handle that is not an open
 * connection; 0x01000000 no descriptor could be made; 0x04000000 library
 * not open.
 * Thread safety: any thread. */
VYRIX_API Vyrix_ReturnStatus Vyrix_GetEventFd(void* hConnection, int* pFd);

/* Switches reconnection on (enable non-zero) or off for a connection.  On,
 * a link that goes down is reported down, then reconnecting, and the
 * library reopens the same device: the same UART path (opened by name
 * again, so a symbolic link that now points to another terminal is
 * followed), the USB device with the serial number of the device the
 * connection had (a device with another serial number is never taken), the
 * same Bluetooth address.  Attempts follow a back-off that starts at 50 ms
 * and doubles up to maxIntervalMs (0: 5000 ms; less than 50: 50 ms); a USB
 * device's arrival (where libusb reports hot-plug events) and a UART path
 * appearing end the pause at once and start the back-off again.  When the
 * device is back the link is up
 * on the same handle and the first command goes through.  Meanwhile every
 * command returns 0x16000000 at once.  Switched on while the link is down,
 * reconnection starts at once; switched off while reconnecting, the link
 * goes back to down.  Vyrix_CloseConnection ends the attempts at once.
 * Results: 0; 0x05000000 a handle that is not an open connection;
 * 0x04000000 library not open.  Does not wait.
 * Thread safety: any thread. */
VYRIX_API Vyrix_ReturnStatus Vyrix_SetReconnect(void* hConnection, int enable, uint32_t maxIntervalMs);

/* ---- Last error text -------------------------------------------------- */

/* Vyrix_GetLastErrorText: one sentence about the last failure on the
 * calling thread, naming its cause in words a user can act on, with the
 * operating system's reason in parentheses where there was one, e.g.
 * "/dev/ttyUSB0 is in use by process 4242 (lock file
 * /tmp/vyrix_llc_com_ttyUSB0.lock)", "no permission to open /dev/ttyUSB0:
 * it belongs to the group 'dialout'; add the user to it (sudo usermod -aG
 * dialout $USER) and log in again (Permission denied)", "/dev/ttyUSB9: no
 * such device (No such file or directory)", "no answer from the device
 * within 10 s", "the device went away: ...".  Vyrix_GetResultDescription
 * stays the code's generic text; this is the particular reason.
 * Set by: Vyrix_OpenConnection (device not found, in use with the holder's
 * process id when its lock file names one, no permission with the group to
 * join, not a serial device, no Bluetooth adapter, a connect that failed)
 * and every device operation (no answer within the connection's reply
 * time-out, the device went away, the connection closed under it).  Those
 * calls empty it when they start, so after one of them fails the text is
 * about that failure, or "" when there is nothing to add to the result
 * word; other functions leave it as it is.
 * Result: never null; "" when nothing is recorded on this thread.
 * Lifetime: the text lives in storage of the calling thread, valid until
 * the thread ends; its content changes with the thread's next call that
 * sets or empties it (copy it to keep it).  Never free it.
 * Blocking: none.  Thread safety: any thread; each thread has its own text. */
VYRIX_API const char* Vyrix_GetLastErrorText(void);

/* ---- Capturing traffic ------------------------------------------------ */

/* A capture is a pcap file (link type LINKTYPE_USER0 = 147, time stamps in
 * nanoseconds) with one record per packet that crossed a link, in both
 * directions, and one per run of received bytes that the packet parser gave
 * up (a damaged packet, a false start, noise).  Each record is written and
 * flushed to the file as it happens, so a crash keeps everything captured so
 * far.  The record data is this header followed by the bytes exactly as
 * they crossed the port (start byte to checksum).  Sent packets are
 * recorded as they are handed to the port, received ones when they have
 * been parsed.  The dissector vyrix.lua, installed with the tools, decodes
 * them in Wireshark and tshark.
 *
 * Besides Vyrix_StartCapture below, the environment variable VYRIX_CAPTURE
 * (a path) captures every link of the process into one file, read when the
 * process opens its first port; `link` tells the links apart.
 *
 * fork() and exec: capture files are opened close-on-exec; fork() waits
 * for a record being written; a child made by fork() never writes to or
 * closes a capture file it inherited, and captures only what it starts
 * itself (a child whose parent had opened no port yet reads VYRIX_CAPTURE
 * like any process). */
#define VYRIX_CAPTURE_LINKTYPE 147

typedef struct Vyrix_CaptureHeaderS {
    uint8_t version;   /* VYRIX_CAPTURE_VERSION */
    uint8_t direction; /* VYRIX_CAPTURE_HOST_TO_DEVICE or VYRIX_CAPTURE_DEVICE_TO_HOST */
    uint8_t transport; /* a Vyrix_ConnectionTypeE value: 0 UART, 1 USB, 2 Bluetooth */
    uint8_t flags;     /* VYRIX_CAPTURE_DISCARDED, VYRIX_CAPTURE_RESENT */
    uint8_t link[4];   /* link number, most significant byte first: 1 for the
                        * first port the process opened, 2 for the next... */
} Vyrix_CaptureHeaderS;
VYRIX_LAYOUT(sizeof(Vyrix_CaptureHeaderS) == 8);
VYRIX_LAYOUT(offsetof(Vyrix_CaptureHeaderS, flags) == 3);
VYRIX_LAYOUT(offsetof(Vyrix_CaptureHeaderS, link) == 4);

#define VYRIX_CAPTURE_VERSION 1
#define VYRIX_CAPTURE_HOST_TO_DEVICE 0
#define VYRIX_CAPTURE_DEVICE_TO_HOST 1
/* Received bytes the parser gave up, not a packet. */
#define VYRIX_CAPTURE_DISCARDED 0x01
/* A packet sent again because the device asked for it. */
#define VYRIX_CAPTURE_RESENT 0x02

/* Starts capturing the traffic of this connection's link into a new pcap
 * file at pPath (created, or emptied when it exists, with mode 0666 less
 * the umask).  The capture ends with Vyrix_StopCapture or when the
 * connection closes; the file is then complete and closed.  A process-wide
 * capture (VYRIX_CAPTURE) goes on beside it.
 * Results: 0; 0x01000000 eVYRIX_FAILURE the file cannot be created or
 * written (the reason is in the log); 0x18000000 eVYRIX_ALREADY_OPENED this
 * connection is already being captured; 0x16000000 eVYRIX_NOT_CONNECTED the
 * connection has no link, or was inherited across fork(); 0x05000000 pPath null or empty, or a handle that
 * is not an open connection; 0x04000000 library not open.
 * Blocking: creates the file and writes its header; nothing is sent.
 * Thread safety: any thread, while commands run on the connection; packets
 * that cross the link meanwhile are in the file or not, never half. */
VYRIX_API Vyrix_ReturnStatus Vyrix_StartCapture(void* connHandle, const char* pPath);

/* Ends the capture that Vyrix_StartCapture started on this connection and
 * closes its file.  Stopping a connection that is not being captured does
 * nothing and returns 0.
 * Results: 0; 0x16000000 the connection was inherited across fork() (its
 * capture is the parent's); 0x05000000 a handle that is not an open
 * connection; 0x04000000 library not open.
 * Blocking: waits for a record being written to finish, no longer.
 * Thread safety: any thread, while commands run on the connection. */
VYRIX_API Vyrix_ReturnStatus Vyrix_StopCapture(void* connHandle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VYRIX_API_H */
