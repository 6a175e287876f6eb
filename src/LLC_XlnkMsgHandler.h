/* SPDX-License-Identifier: MIT */
// XLNK packet codec: encoder, and an incremental parser fed with the chunks
// a port reads.  A packet: 0xC0, destination, source, protocol and length
// bits 11..8, length bits 7..0, payload, checksum (two's complement of the
// byte sum from the destination to the last payload byte).
//
// The parser never loses a packet to a false start: when a started packet
// is abandoned (a rejected header byte, a checksum mismatch, or the receive
// loop giving up on a silent line), parsing resumes at the byte after that
// packet's start byte, so a real packet that began inside it is still found.
#ifndef LLC_XLNKMSGHANDLER_H
#define LLC_XLNKMSGHANDLER_H

#include <vector>

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

    // Consumes bytes of a chunk (after any bytes held back for a resumed
    // search).  0: one packet accepted into *pMsg (its payload is the
    // receiver's to free with delete[]); ConsumedBytes() tells how much of
    // the chunk was used, and the caller passes the rest (possibly none:
    // held-back bytes may hold more packets) until a call returns non-zero.
    // 0x1000000: everything was used and no packet is complete (the state
    // carries over).  0x5000000 for null arguments.
    Vyrix_ReturnStatus ParsePacket(BYTE* inBuf, DWORD dwNumBytes, KtXlnkMsgS* pMsg);

    // Steps for the header and payload states on the bytes at hand; 0 when
    // their part is complete, 0x1000000 otherwise.
    Vyrix_ReturnStatus ParseHeader();
    Vyrix_ReturnStatus ParsePayload();

    // Subtracts each byte from *checksum.
    Vyrix_ReturnStatus FindChecksum(BYTE* inBuf, DWORD inBufLen, BYTE* checksum);

    KtParseStateE State() const { return m_ParseState; }
    // Bytes of the last chunk that the last ParsePacket call used.
    DWORD ConsumedBytes() const { return m_BufIdx; }
    // A packet has started and is not complete yet.
    bool InPacket() const { return m_ParseState != ePARSE_START; }
    // Gives up the started packet (the line went quiet inside it): the
    // bytes after its start byte are searched again by the next call.
    void AbandonPacket();
    // Started packets given up so far (false starts, damaged packets).
    size_t Abandoned() const { return m_abandoned; }

    // The four header bytes of the packet last accepted, as they arrived.
    const BYTE* LastHeader() const { return m_header; }

    // While kept, the bytes given up for good are collected in stream order
    // for TakeDropped: each damaged packet or false start (from its start
    // byte to where it was given up, less any part that began a packet of
    // its own) and each run of noise is one piece.  Pieces are collected
    // only within ParsePacket calls, so a caller that takes them after
    // every call holds at most one chunk's worth.
    void KeepDropped(bool keep) { m_keepDropped = keep; }
    bool HasDropped() const { return !m_dropped.empty(); }
    void TakeDropped(std::vector<std::vector<BYTE>>* pieces);

private:
    enum class HeaderByte { kAccepted, kComplete, kRejected };
    HeaderByte TakeHeaderByte(BYTE byte);
    // The bytes to parse next: held-back bytes first, then the chunk.
    const BYTE* Available(DWORD* count) const;
    void Advance(DWORD count);
    bool SeekStart();
    void StartPacket();
    // Back to seeking a start, with the started packet's bytes after its
    // start byte (and `tail`) to be searched first.
    void Resume(const BYTE* tail, DWORD tailLen);
    void ReleasePayload();
    void DropNoise(const BYTE* bytes, size_t count);

    KtParseStateE m_ParseState;
    BYTE* m_pBuf;
    DWORD m_TotalBytes;
    DWORD m_RemBytes;
    DWORD m_BufIdx;
    DWORD m_payLoadIdx;
    BYTE m_checkSum;
    KtXlnkMsgS m_currMsg;
    // The started packet's header bytes after the start byte, kept so they
    // can be searched again.
    BYTE m_header[4];
    DWORD m_headerLen;
    // Bytes of an abandoned packet waiting to be searched again.
    std::vector<BYTE> m_replay;
    size_t m_replayAt;
    size_t m_abandoned = 0;
    bool m_keepDropped = false;
    std::vector<std::vector<BYTE>> m_dropped;
    // Bytes still to come of the given-up packet in the last dropped piece;
    // whether that piece is noise that later noise may join.
    size_t m_droppedPacketLeft = 0;
    bool m_noiseOpen = false;
};

#endif  // LLC_XLNKMSGHANDLER_H
