// Byte-order converters and log dumps of the service request and reply
// bodies, and the reply length rules of the map and volume replies.
//
// Converters test the marker at byte 0 and leave the message alone when it
// reads 1; the header itself is converted elsewhere, first. Dumps write at
// level 4: a title, the header lines, then the body lines.
#ifndef KESTRIX_SP_SP_SUP_H_
#define KESTRIX_SP_SP_SUP_H_

#include <stdint.h>

#include "spmsgs.h"

#ifdef __cplusplus
extern "C" {
#endif

// Requests, converted by the handlers on entry.
void SPSUP_TransLanGetVolume(GetVolumeMsg* msg);
void SPSUP_TransLanGetInitialMap(GetInitialMapMsg* msg);
void SPSUP_TransLanGetExtendedMap(GetExtendedMapMsg* msg);
void SPSUP_TransLanSetSize(SetSizeMsg* msg);
void SPSUP_TransLanClose(CloseMsg* msg);

// Replies, for whoever receives them; the daemon sends its own unconverted.
void SPSUP_TransLanGetVolumeResp(GetVolumeReply* reply);
void SPSUP_TransLanGetInitialMapResp(GetInitialMapReply* reply);
void SPSUP_TransLanGetExtendedMapResp(GetExtendedMapReply* reply);
void SPSUP_TransLanSetSizeResp(SetSizeReply* reply);
void SPSUP_TransLanCloseResp(CloseReply* reply);

void SPSUP_DumpGetVolumeMsg(const GetVolumeMsg* msg);
void SPSUP_DumpGetInitialMapMsg(const GetInitialMapMsg* msg);
void SPSUP_DumpGetExtendedMapMsg(const GetExtendedMapMsg* msg);
void SPSUP_DumpSetSizeMsg(const SetSizeMsg* msg);
void SPSUP_DumpCloseMsg(const CloseMsg* msg);

// The size argument is not used: the walk is bounded by the header length.
void SPSUP_DumpGetVolumeReply(const GetVolumeReply* reply, FSULONG size);
void SPSUP_DumpGetInitialMapReply(const GetInitialMapReply* reply, FSULONG size);
void SPSUP_DumpGetExtendedMapReply(const GetExtendedMapReply* reply, FSULONG size);
void SPSUP_DumpSetSizeReply(const SetSizeReply* reply, FSULONG size);
void SPSUP_DumpCloseReply(const CloseReply* reply, FSULONG size);

// Picks the dump by functionCode (1..5 and -1..-5); prints nothing for any
// other code or a null message.
void SPSUP_DumpMessage(const LanHeader* msg, FSULONG size);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// The header length of a reply that carries variable data, built in a
// buffer of bufferSize bytes. Text units are counted only inside the buffer,
// the sum is formed in 64 bits, and the result never exceeds bufferSize nor
// SP_MAX_DATAGRAM.
//
// GetVolume: nDisks != 0 gives 272 + 80 * (nDisks - 1); otherwise
// 272 + 2 * (n + 1), n the units of the text at byte 192.
FSULONG GetVolumeReplyLength(const GetVolumeReply* reply, FSULONG bufferSize);
// GetInitialMap: 160 + msgLen + 2 * (n + 1), n the units of the text at 224.
FSULONG GetInitialMapReplyLength(const GetInitialMapReply* reply, FSULONG bufferSize);
// GetExtendedMap: 160 + msgLen + 2 * (n + 1), n the units of the text at 152.
FSULONG GetExtendedMapReplyLength(const GetExtendedMapReply* reply, FSULONG bufferSize);
// The GetExtendedMap length before it is capped at bufferSize, for the
// handler's test of a map that does not fit.
int64_t GetExtendedMapReplyWantedLength(const GetExtendedMapReply* reply, FSULONG bufferSize);

}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_SP_SUP_H_
