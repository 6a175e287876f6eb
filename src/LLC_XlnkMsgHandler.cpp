// SPDX-License-Identifier: MIT
#include "LLC_XlnkMsgHandler.h"

#include <cstring>

namespace {
constexpr DWORD kSeekRemBytes = 5;
constexpr DWORD kHeaderBytes = 4;
constexpr BYTE kPriorityBits = 0xC0;
}  // namespace

CXlnkMsgHandler::CXlnkMsgHandler()
    : m_ParseState(ePARSE_START),
      m_pBuf(nullptr),
      m_TotalBytes(0),
      m_RemBytes(0),
      m_BufIdx(0),
      m_payLoadIdx(0),
      m_checkSum(0),
      m_currMsg(),
      m_header(),
      m_headerLen(0),
      m_replayAt(0) {
    InitParser();
}

CXlnkMsgHandler::~CXlnkMsgHandler() { ReleasePayload(); }

void CXlnkMsgHandler::InitParser() {
    m_currMsg = KtXlnkMsgS{};
    m_payLoadIdx = 0;
    m_checkSum = 0;
    m_RemBytes = kSeekRemBytes;
}

void CXlnkMsgHandler::ReleasePayload() {
    delete[] m_currMsg.pPayload;
    m_currMsg.pPayload = nullptr;
}

Vyrix_ReturnStatus CXlnkMsgHandler::FindChecksum(BYTE* inBuf, DWORD inBufLen, BYTE* checksum) {
    if (inBuf == nullptr || checksum == nullptr) {
        LlcLog("<ERROR> %s :Invalid argument\n", "FindChecksum");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    for (DWORD i = 0; i < inBufLen; ++i) *checksum = static_cast<BYTE>(*checksum - inBuf[i]);
    return RC_OK;
}

Vyrix_ReturnStatus CXlnkMsgHandler::EncodePacket(KtXlnkMsgS sMsg, BYTE* outBuf) {
    const char* error = nullptr;
    Vyrix_ReturnStatus result = RC(eVYRIX_INVALID_ARGUMENT);
    if (sMsg.deviceID != eEP_DEVICE && sMsg.deviceID != eAP_DEVICE) {
        error = "<ERROR> %s :Invalid destination ID in the XLNK packet\n";
    } else if (sMsg.sourceID != eHOST_DEVICE) {
        error = "<ERROR> %s :Invalid source ID in the XLNK packet\n";
    } else if (sMsg.priority != 0) {
        error = "<ERROR> %s :Invalid priority in the XLNK packet\n";
    } else if (sMsg.protocolID > ePROTOCOL_CONNECTION_ORIENTED) {
        error = "<ERROR> %s :Invalid protocol ID in the XLNK packet\n";
    } else if (sMsg.payloadLen > KT_XLNK_MAX_PAYLOAD) {
        error = "<ERROR> %s :Payload length greater than max payload \n";
        result = RC(eVYRIX_PAYLOAD_TOO_LARGE);
    } else if (sMsg.payloadLen == 0) {
        error = "<ERROR> %s :Invalid payload length in the XLNK packet\n";
    } else if (sMsg.pPayload == nullptr) {
        error = "<ERROR>  %s :NULL pointer for payload in the XLNK packet\n";
    } else if (outBuf == nullptr) {
        error = "<ERROR> %s :Invalid argument\n";
    }
    if (error != nullptr) {
        LlcLog(error, "EncodePacket");
        return result;
    }

    const WORD len = sMsg.payloadLen;
    outBuf[0] = 0;
    outBuf[1] = sMsg.deviceID;
    outBuf[2] = eHOST_DEVICE;
    outBuf[3] = static_cast<BYTE>(sMsg.protocolID * 16 + (len >> 8));
    outBuf[4] = static_cast<BYTE>(len & 0xFF);
    memcpy(outBuf + KT_XLNK_HEADER_LEN, sMsg.pPayload, len);
    BYTE checksum = 0;
    FindChecksum(outBuf, KT_XLNK_HEADER_LEN + len, &checksum);
    outBuf[0] = KT_XLNK_START_BYTE;
    outBuf[KT_XLNK_HEADER_LEN + len] = checksum;
    return RC_OK;
}

const BYTE* CXlnkMsgHandler::Available(DWORD* count) const {
    if (m_replayAt < m_replay.size()) {
        *count = static_cast<DWORD>(m_replay.size() - m_replayAt);
        return m_replay.data() + m_replayAt;
    }
    *count = m_TotalBytes - m_BufIdx;
    return m_pBuf + m_BufIdx;
}

void CXlnkMsgHandler::Advance(DWORD count) {
    if (m_replayAt < m_replay.size()) {
        m_replayAt += count;
        if (m_replayAt == m_replay.size()) {
            m_replay.clear();
            m_replayAt = 0;
        }
        return;
    }
    m_BufIdx += count;
}

void CXlnkMsgHandler::StartPacket() {
    InitParser();
    m_ParseState = ePARSE_HEADER;
    m_RemBytes = kHeaderBytes;
    m_headerLen = 0;
}

void CXlnkMsgHandler::DropNoise(const BYTE* bytes, size_t count) {
    if (!m_keepDropped) return;
    while (count > 0) {
        size_t take = count;
        if (m_dropped.empty() || (m_droppedPacketLeft == 0 && !m_noiseOpen)) {
            m_dropped.emplace_back();
            m_noiseOpen = true;
        } else if (m_droppedPacketLeft > 0) {
            take = count < m_droppedPacketLeft ? count : m_droppedPacketLeft;
            m_droppedPacketLeft -= take;
        }
        m_dropped.back().insert(m_dropped.back().end(), bytes, bytes + take);
        bytes += take;
        count -= take;
    }
}

void CXlnkMsgHandler::TakeDropped(std::vector<std::vector<BYTE>>* pieces) {
    pieces->swap(m_dropped);
    m_dropped.clear();
    m_droppedPacketLeft = 0;
    m_noiseOpen = false;
}

bool CXlnkMsgHandler::SeekStart() {
    DWORD count = 0;
    const BYTE* at = Available(&count);
    const void* start = memchr(at, KT_XLNK_START_BYTE, count);
    if (start == nullptr) {
        DropNoise(at, count);
        Advance(count);
        return false;
    }
    const DWORD skipped = static_cast<DWORD>(static_cast<const BYTE*>(start) - at);
    DropNoise(at, skipped);
    Advance(skipped + 1);
    m_droppedPacketLeft = 0;  // what follows belongs to the new packet
    m_noiseOpen = false;
    StartPacket();
    return true;
}

void CXlnkMsgHandler::AbandonPacket() {
    if (m_ParseState != ePARSE_START) Resume(nullptr, 0);
}

void CXlnkMsgHandler::Resume(const BYTE* tail, DWORD tailLen) {
    ++m_abandoned;
    // Everything after the start byte, in arrival order, then whatever was
    // still held back.
    std::vector<BYTE> again(m_header, m_header + m_headerLen);
    if (m_currMsg.pPayload != nullptr) again.insert(again.end(), m_currMsg.pPayload, m_currMsg.pPayload + m_payLoadIdx);
    again.insert(again.end(), tail, tail + tailLen);
    if (m_keepDropped) {
        // Its start byte is given up now; the bytes after it join it as far
        // as the search drops them.
        m_dropped.emplace_back(1, KT_XLNK_START_BYTE);
        m_droppedPacketLeft = again.size();
        m_noiseOpen = false;
    }
    again.insert(again.end(), m_replay.begin() + static_cast<std::ptrdiff_t>(m_replayAt), m_replay.end());
    m_replay.swap(again);
    m_replayAt = 0;
    ReleasePayload();
    m_headerLen = 0;
    m_ParseState = ePARSE_START;
    m_RemBytes = kSeekRemBytes;
}

CXlnkMsgHandler::HeaderByte CXlnkMsgHandler::TakeHeaderByte(BYTE byte) {
    m_header[m_headerLen++] = byte;
    m_checkSum = static_cast<BYTE>(m_checkSum - byte);
    switch (m_RemBytes) {
        case 4:
            if (byte != eHOST_DEVICE && byte != eBROADCAST_DEVICE_ID) {
                LlcLog("<ERROR> %s :Invalid destination id in buffer\n", "ParseHeader");
                return HeaderByte::kRejected;
            }
            m_currMsg.deviceID = byte;
            break;
        case 3:
            if (byte != eEP_DEVICE && byte != eAP_DEVICE) {
                LlcLog("<ERROR> %s :Invalid source id in buffer\n", "ParseHeader");
                return HeaderByte::kRejected;
            }
            m_currMsg.sourceID = byte;
            break;
        case 2: {
            if (byte & kPriorityBits) return HeaderByte::kRejected;
            BYTE protocol = (byte >> 4) & 0x03;
            if (protocol > ePROTOCOL_CONNECTION_ORIENTED) {
                LlcLog("<ERROR> %s :Invalid protocol id in buffer\n", "ParseHeader");
                return HeaderByte::kRejected;
            }
            m_currMsg.priority = 0;
            m_currMsg.protocolID = protocol;
            m_currMsg.payloadLen = byte & 0x0F;
            break;
        }
        default:
            m_currMsg.payloadLen = static_cast<WORD>(m_currMsg.payloadLen * 256 + byte);
            m_RemBytes = 0;
            return HeaderByte::kComplete;
    }
    --m_RemBytes;
    return HeaderByte::kAccepted;
}

Vyrix_ReturnStatus CXlnkMsgHandler::ParseHeader() {
    DWORD count = 0;
    const BYTE* at = Available(&count);
    for (DWORD i = 0; i < count; ++i) {
        HeaderByte outcome = TakeHeaderByte(at[i]);
        if (outcome == HeaderByte::kAccepted) continue;
        Advance(i + 1);
        if (outcome == HeaderByte::kRejected) {
            LlcLog("<ERROR> %s :Valid header not found in buffer\n", "ParseHeader");
            Resume(nullptr, 0);
            return RC(eVYRIX_FAILURE);
        }
        m_ParseState = ePARSE_PAYLOAD;
        m_payLoadIdx = 0;
        m_RemBytes = m_currMsg.payloadLen;
        return RC_OK;
    }
    Advance(count);
    return RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus CXlnkMsgHandler::ParsePayload() {
    if (m_currMsg.pPayload == nullptr && m_currMsg.payloadLen > 0) m_currMsg.pPayload = new BYTE[m_currMsg.payloadLen];
    DWORD count = 0;
    const BYTE* at = Available(&count);
    DWORD take = m_RemBytes < count ? m_RemBytes : count;
    if (take > 0) {
        memcpy(m_currMsg.pPayload + m_payLoadIdx, at, take);
        FindChecksum(m_currMsg.pPayload + m_payLoadIdx, take, &m_checkSum);
        m_payLoadIdx += take;
        m_RemBytes -= take;
        Advance(take);
    }
    if (m_RemBytes > 0) return RC(eVYRIX_FAILURE);
    m_ParseState = ePARSE_CHECKSUM;
    m_RemBytes = 1;
    return RC_OK;
}

Vyrix_ReturnStatus CXlnkMsgHandler::ParsePacket(BYTE* inBuf, DWORD dwNumBytes, KtXlnkMsgS* pMsg) {
    if (inBuf == nullptr || pMsg == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    m_pBuf = inBuf;
    m_TotalBytes = dwNumBytes;
    m_BufIdx = 0;
    for (;;) {
        DWORD count = 0;
        Available(&count);
        if (count == 0) {
            if (m_ParseState == ePARSE_HEADER)
                LlcLog("<INFO> %s :Header not completely present in the current buffer\n", "ParseHeader");
            if (m_ParseState == ePARSE_PAYLOAD)
                LlcLog("<INFO> %s :Payload not completely present in the current buffer\n", "ParsePayload");
            return RC(eVYRIX_FAILURE);
        }
        switch (m_ParseState) {
            case ePARSE_START: SeekStart(); break;
            case ePARSE_HEADER: ParseHeader(); break;
            case ePARSE_PAYLOAD: ParsePayload(); break;
            case ePARSE_CHECKSUM: {
                const BYTE received = *Available(&count);
                Advance(1);
                if (received != m_checkSum) {
                    // Never deliver a damaged packet; search its bytes again.
                    LlcLog("<ERROR> %s :Invalid checksum in buffer\n", "ParsePacket");
                    Resume(&received, 1);
                    break;
                }
                *pMsg = m_currMsg;
                if (pMsg->deviceID == eBROADCAST_DEVICE_ID) pMsg->protocolID = ePROTOCOL_CONNECTION_ORIENTED;
                m_currMsg.pPayload = nullptr;  // now the receiver's
                m_ParseState = ePARSE_START;
                m_RemBytes = kSeekRemBytes;
                m_headerLen = 0;
                return RC_OK;
            }
        }
    }
}
