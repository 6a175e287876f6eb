// XLNK packet codec: encoder, and an incremental parser fed with the chunks
// a port reads.  A packet: 0xC0, destination, source, protocol and length
// bits 11..8, length bits 7..0, payload, checksum (two's complement of the
// byte sum from the destination to the last payload byte).
#ifndef LLC_XLNKMSGHANDLER_H
#define LLC_XLNKMSGHANDLER_H

#include "LLC_Common.h"

typedef enum KtParseStateE {
    ePARSE_START = 0,
    ePARSE_HEADER = 1,
    ePARSE_PAYLOAD = 2,
    ePARSE_CHECKSUM = 3
} KtParseStateE;

class CXlnkMsgHandler {
public:
    CXlnkMsgHandler();
    ~CXlnkMsgHandler();
    CXlnkMsgHandler(const CXlnkMsgHandler&) = delete;
    CXlnkMsgHandler& operator=(const CXlnkMsgHandler&) = delete;

    void InitParser();

    // Writes sMsg.payloadLen + 6 bytes to outBuf.  0; 0x5000000 for a bad
    // header field or payload; 0x1A000000 for a payload over 4095 bytes.
    // Nothing is written unless every check passes.
    Vyrix_ReturnStatus EncodePacket(KtXlnkMsgS sMsg, BYTE* outBuf);

    // Consumes a chunk.  0: one packet accepted into *pMsg (its payload is
    // the receiver's to free with delete[]); the rest of the chunk is not
    // looked at.  0x1000000: the chunk ended before a packet was complete
    // (the state carries over), or a packet failed its checksum.  0x5000000
    // for null arguments.
    Vyrix_ReturnStatus ParsePacket(BYTE* inBuf, DWORD dwNumBytes, KtXlnkMsgS* pMsg);

    Vyrix_ReturnStatus ParseHeader();
    Vyrix_ReturnStatus ParsePayload();

    // Subtracts each byte from *checksum.
    Vyrix_ReturnStatus FindChecksum(BYTE* inBuf, DWORD inBufLen, BYTE* checksum);

    KtParseStateE State() const { return m_ParseState; }
    // Bytes of the last chunk that the last ParsePacket call looked at.
    DWORD ConsumedBytes() const { return m_BufIdx; }

private:
    enum class HeaderByte { kAccepted, kComplete, kRejected };
    HeaderByte TakeHeaderByte(BYTE byte);
    bool SeekStart();
    void ReleasePayload();

    KtParseStateE m_ParseState;
    BYTE* m_pBuf;
    DWORD m_TotalBytes;
    DWORD m_RemBytes;
    DWORD m_BufIdx;
    DWORD m_payLoadIdx;
    BYTE m_checkSum;
    KtXlnkMsgS m_currMsg;
};

#endif  // LLC_XLNKMSGHANDLER_H
