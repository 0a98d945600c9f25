// Reads CAPWAP headers (RFC 5415, sections 4.1 to 4.5) in place, out of a packet's first segment.
//
// Every reader is total: each read is bounded by the segment length, and what is not there ends the
// reader. The traced readers report a malformed packet through the debug trace, the quiet ones
// report nothing. Results are 0 or 0xFFFFFFFF; outputs are written only on success. All are
// reentrant; pointers that they hand out live as long as the packet.
#pragma once

#include <cstdint>

#include "kes/mbuf.h"
#include "module/export.h"

// Locates the CAPWAP header: the first byte behind the UDP header of an IPv4 packet, or of an IPv6
// packet without extension headers. Gives its address, the payload length (UDP length less the UDP
// header) and the bytes of it that are present in the segment.
LYR_API uint32_t LyrKes_GetCapwapHdr(const HostMbuf *packet, const uint8_t **header,
                                     uint16_t *payloadLength, uint16_t *present);  // traced
LYR_API uint32_t LyrKes_GetCapwapHeader(const HostMbuf *packet, const uint8_t **header,
                                        uint16_t *payloadLength, uint16_t *present);  // quiet

// Reads the message type of a control message (RFC 5415, section 4.5.1.1): the first word behind
// the CAPWAP header, whatever the packet is.
LYR_API uint32_t LyrKes_GetCapwapMsgTypeFromCapwapHdr(const uint8_t *header, uint16_t payloadLength,
                                                      uint16_t present,
                                                      uint32_t *messageType);  // traced
LYR_API uint32_t LyrKes_GetCapwapMsgTypeFromCapwapHeader(const uint8_t *header, uint16_t present,
                                                         uint32_t *messageType);  // quiet

// The message type of a packet, or 0xFFFFFFFF if it cannot be read.
LYR_API uint32_t LyrKes_GetCapwapMsgType(const HostMbuf *packet);     // traced
LYR_API uint32_t LyrKes_GetCapwapPktMsgType(const HostMbuf *packet);  // quiet

// 1 for a DTLS record other than application data behind a CAPWAP DTLS header (RFC 5415, section
// 4.2), else 0. Traced.
LYR_API uint32_t LyrKes_CheckIsDtlsHandShakePkt(const HostMbuf *packet);

// 1 for a data-channel keepalive: K set, F clear (RFC 5415, section 4.4.1), else 0. Traced.
LYR_API uint32_t LyrKes_CheckIsKaPkt(const HostMbuf *packet);

// Reads a keepalive's session id (RFC 5415, section 4.6.37) as four host-order words. Traced.
LYR_API uint32_t LyrKes_GetKaSessionid(const HostMbuf *packet, uint32_t *sessionId);

// Reads the WLAN id out of the extension header behind a CAPWAP header. Quiet.
LYR_API uint32_t LyrKes_GetWlanIdFromCapwapHeader(const uint8_t *header, uint16_t present,
                                                  uint16_t *wlanId);

// The same for a packet: the reader that the engine calls, on a thread of its choosing. Locates
// the header quietly and traces a failure to do so.
LYR_API uint32_t LyrKes_GetVadoAcTunnelWlanId(HostMbuf *packet, uint16_t *wlanId);

// 1 for a first or only IP fragment, else 0: also when the segment ends before the fragment fields.
LYR_API uint32_t LyrKes_CheckIfFirstIpFrag(const HostMbuf *packet);

namespace lyr {

// The session id of a packet that is a keepalive; false for any other. Quiet.
bool PeekSessionId(const HostMbuf *packet, uint32_t *sessionId);

}  // namespace lyr
