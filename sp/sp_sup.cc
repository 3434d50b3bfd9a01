// sp_sup: byte-order converters and log dumps of the service request and
// reply bodies, the dump dispatcher, and the reply length rules.
//
// Bounds we keep ourselves:
// - Reply dumps walk a disk or extent table, or a text, only as far as the
//   reply header's length (the handlers keep it within the buffer), so a
//   library that wrote a huge nDisks or nExtents cannot make the dump read
//   past the reply. Reply converters do the same whenever the header length
//   is at least 48 (the header is converted before the body).
// - Request dumps read the path and name areas only within their 2048 bytes.
// - Reply lengths count text units only inside the buffer and never exceed
//   it, nor the 65507 bytes one datagram carries.
#include "sp/sp_sup.h"

#include <algorithm>

#include "sp/fsmdc_sup.h"
#include "utils/field_walk.h"
#include "utils/lan_sup.h"
#include "utils/log.h"
#include "utils/utils.h"
#include "wire_functions.h"

namespace kestrix {
namespace {

constexpr int kNameLineMax = 256;  // characters of one GetInitialMap name line

// Every dump writes at level 4 only: below it nothing is built.
bool DumpsOff() { return GetLogLevel() < KSX_SP; }

bool NeedsConversion(const LanHeader* header) {
  return header->byteOrder != LAN_BYTEORDER_MARK;
}

// Bytes of the reply, from the embedded structure at `offset`, that the
// reply's own length covers. Dumps always use it.
uint64_t LimitFromLength(FSULONG length, uint64_t offset) {
  return length > offset ? length - offset : 0;
}

// The converters trust a header length of at least 48; below that they walk
// the tables as far as the counts say.
uint64_t ConversionLimit(const LanHeader* header, uint64_t offset) {
  if (header->length < LAN_HEADER_SIZE) return kNoByteLimit;
  return LimitFromLength(header->length, offset);
}

void Title(const char* title, const LanHeader* header) {
  OSL_Log(KSX_SP, "%s", title);
  LANSUP_DumpLanHeader(header);
}

// One name line of a GetInitialMap request: the non-zero bytes from *pos on,
// until two zero bytes in a row, 256 characters, or the end of the area.
// *pos is left just after the last byte looked at.
void NarrowNameLine(const uint8_t* area, size_t areaBytes, size_t* pos,
                    char (&out)[kNameLineMax + 1]) {
  int zeros = 0;
  int used = 0;
  while (*pos < areaBytes && zeros < 2 && used < kNameLineMax) {
    const uint8_t byte = area[(*pos)++];
    if (byte != 0) {
      out[used++] = static_cast<char>(byte);
      zeros = 0;
    } else {
      ++zeros;
    }
  }
  out[used] = '\0';
}

// Units of the text at textOffset that lie inside a buffer of bufferSize.
uint64_t TextUnitsWithin(const void* reply, FSULONG textOffset, FSULONG bufferSize) {
  if (bufferSize <= textOffset) return 0;
  const FSUNI* text = reinterpret_cast<const FSUNI*>(static_cast<const uint8_t*>(reply) +
                                                     textOffset);
  return fsuninlength(text, (bufferSize - textOffset) / 2);
}

// 160 + msgLen + 2 * (n + 1) in 64 bits.
int64_t MapReplyLength(const void* reply, FSLONG msgLen, FSULONG textOffset,
                       FSULONG bufferSize) {
  const uint64_t units = TextUnitsWithin(reply, textOffset, bufferSize);
  return SP_MAP_REPLY_LENGTH_BASE + static_cast<int64_t>(msgLen) +
         2 * (static_cast<int64_t>(units) + 1);
}

// The most a reply built in a buffer of bufferSize bytes may send: the
// buffer, and never more than one datagram (the default buffer is larger).
FSULONG SendLimit(FSULONG bufferSize) {
  return std::min<FSULONG>(bufferSize, SP_MAX_DATAGRAM);
}

// Never above the send limit; never below 162, the length of a map with
// msgLen 0 and no text (a negative msgLen), unless the buffer is smaller.
FSULONG Clamp(int64_t length, FSULONG bufferSize) {
  constexpr int64_t kEmptyMapLength = SP_MAP_REPLY_LENGTH_BASE + 2;
  const int64_t limit = SendLimit(bufferSize);
  return static_cast<FSULONG>(std::clamp<int64_t>(length, std::min(kEmptyMapLength, limit), limit));
}

}  // namespace

FSULONG GetVolumeReplyLength(const GetVolumeReply* reply, FSULONG bufferSize) {
  const FSULONG disks = reply->volInfo.nDisks;
  uint64_t length;
  if (disks != 0) {
    // 272 + 80 * (nDisks - 1): the disk table starts at byte 192.
    length = SP_GETVOLUME_TEXT_OFFSET + static_cast<uint64_t>(FSDISK_SIZE) * disks;
  } else {
    length = SP_GETVOLUME_REPLY_SIZE +
             2 * (TextUnitsWithin(reply, SP_GETVOLUME_TEXT_OFFSET, bufferSize) + 1);
  }
  return static_cast<FSULONG>(std::min<uint64_t>(length, SendLimit(bufferSize)));
}

FSULONG GetInitialMapReplyLength(const GetInitialMapReply* reply, FSULONG bufferSize) {
  return Clamp(MapReplyLength(reply, reply->map.msgLen, SP_GETINITIALMAP_TEXT_OFFSET, bufferSize),
               bufferSize);
}

int64_t GetExtendedMapReplyWantedLength(const GetExtendedMapReply* reply, FSULONG bufferSize) {
  return MapReplyLength(reply, reply->map.msgLen, SP_GETEXTENDEDMAP_TEXT_OFFSET, bufferSize);
}

FSULONG GetExtendedMapReplyLength(const GetExtendedMapReply* reply, FSULONG bufferSize) {
  return Clamp(GetExtendedMapReplyWantedLength(reply, bufferSize), bufferSize);
}

// The dump of each body, chosen by its struct in the function rows. A
// SendStringCmd is logged by its handler, so its bodies have none here.
void DumpBody(const GetVolumeMsg* msg, FSULONG) { SPSUP_DumpGetVolumeMsg(msg); }
void DumpBody(const GetInitialMapMsg* msg, FSULONG) { SPSUP_DumpGetInitialMapMsg(msg); }
void DumpBody(const GetExtendedMapMsg* msg, FSULONG) { SPSUP_DumpGetExtendedMapMsg(msg); }
void DumpBody(const SetSizeMsg* msg, FSULONG) { SPSUP_DumpSetSizeMsg(msg); }
void DumpBody(const CloseMsg* msg, FSULONG) { SPSUP_DumpCloseMsg(msg); }
void DumpBody(const SendStringCmdMsg*, FSULONG) {}
void DumpBody(const GetVolumeReply* r, FSULONG size) { SPSUP_DumpGetVolumeReply(r, size); }
void DumpBody(const GetInitialMapReply* r, FSULONG size) { SPSUP_DumpGetInitialMapReply(r, size); }
void DumpBody(const GetExtendedMapReply* r, FSULONG size) {
  SPSUP_DumpGetExtendedMapReply(r, size);
}
void DumpBody(const SetSizeReply* r, FSULONG size) { SPSUP_DumpSetSizeReply(r, size); }
void DumpBody(const CloseReply* r, FSULONG size) { SPSUP_DumpCloseReply(r, size); }
void DumpBody(const SendStringCmdReply*, FSULONG) {}

}  // namespace kestrix

using kestrix::ConversionLimit;
using kestrix::ConvertFields;
using kestrix::DumpFields;
using kestrix::LimitFromLength;
using kestrix::NeedsConversion;
using kestrix::Title;
namespace wire = kestrix::wire;

extern "C" {

// ---- request converters ----

void SPSUP_TransLanGetVolume(GetVolumeMsg* msg) {
  if (NeedsConversion(&msg->header)) ConvertFields(msg, wire::GetVolumeMsg::kLayout);
}

void SPSUP_TransLanGetInitialMap(GetInitialMapMsg* msg) {
  if (NeedsConversion(&msg->header)) ConvertFields(msg, wire::GetInitialMapMsg::kLayout);
}

void SPSUP_TransLanGetExtendedMap(GetExtendedMapMsg* msg) {
  if (NeedsConversion(&msg->header)) ConvertFields(msg, wire::GetExtendedMapMsg::kLayout);
}

void SPSUP_TransLanSetSize(SetSizeMsg* msg) {
  if (NeedsConversion(&msg->header)) ConvertFields(msg, wire::SetSizeMsg::kLayout);
}

void SPSUP_TransLanClose(CloseMsg* msg) {
  if (NeedsConversion(&msg->header)) ConvertFields(msg, wire::CloseMsg::kLayout);
}

// ---- reply converters ----

void SPSUP_TransLanGetVolumeResp(GetVolumeReply* reply) {
  if (!NeedsConversion(&reply->header)) return;
  ConvertFields(reply, wire::GetVolumeReply::kLayout);
  kestrix::TransVolInfoWithin(&reply->volInfo,
                              ConversionLimit(&reply->header, wire::GetVolumeReply::volInfo.offset));
}

void SPSUP_TransLanGetInitialMapResp(GetInitialMapReply* reply) {
  if (!NeedsConversion(&reply->header)) return;
  ConvertFields(reply, wire::GetInitialMapReply::kLayout);
  kestrix::TransMapInfoWithin(&reply->map,
                              ConversionLimit(&reply->header, wire::GetInitialMapReply::map.offset));
}

void SPSUP_TransLanGetExtendedMapResp(GetExtendedMapReply* reply) {
  if (!NeedsConversion(&reply->header)) return;
  ConvertFields(reply, wire::GetExtendedMapReply::kLayout);
  kestrix::TransMapInfoWithin(
      &reply->map, ConversionLimit(&reply->header, wire::GetExtendedMapReply::map.offset));
}

void SPSUP_TransLanSetSizeResp(SetSizeReply* reply) {
  if (NeedsConversion(&reply->header)) ConvertFields(reply, wire::SetSizeReply::kLayout);
}

void SPSUP_TransLanCloseResp(CloseReply* reply) {
  if (NeedsConversion(&reply->header)) ConvertFields(reply, wire::CloseReply::kLayout);
}

// ---- request dumps ----

void SPSUP_DumpGetVolumeMsg(const GetVolumeMsg* msg) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetVolume Message ---\n", &msg->header);
  // Same text as fsuni2mb into 1024 bytes, but never past the path area.
  // Its conversion errors are the share mapping's to report, once.
  char path[1024];
  const FSULONG units = kestrix::fsuninlength(msg->path, SP_PATH_UNITS);
  kestrix::Utf16ToUtf8(msg->path, static_cast<int32_t>(units), path, sizeof(path), false);
  OSL_Log(KSX_SP, "%s %s\n", wire::GetVolumeMsg::path.name, kestrix::LogSafe(path).c_str());
}

void SPSUP_DumpGetInitialMapMsg(const GetInitialMapMsg* msg) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetInitialMap Message ---\n", &msg->header);
  const uint8_t* area = reinterpret_cast<const uint8_t*>(msg->names);
  size_t pos = 0;
  char line[kestrix::kNameLineMax + 1];
  kestrix::NarrowNameLine(area, sizeof(msg->names), &pos, line);
  OSL_Log(KSX_SP, "share: [%s]\n", kestrix::LogSafe(line).c_str());
  // The file-name walk goes on where the share walk stopped.
  kestrix::NarrowNameLine(area, sizeof(msg->names), &pos, line);
  OSL_Log(KSX_SP, "filename:[%s]\n", kestrix::LogSafe(line).c_str());
  DumpFields(msg, wire::GetInitialMapMsg::kLayout);
}

void SPSUP_DumpGetExtendedMapMsg(const GetExtendedMapMsg* msg) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetExtendedMap Message ---\n", &msg->header);
  DumpFields(msg, wire::GetExtendedMapMsg::kLayout);
}

void SPSUP_DumpSetSizeMsg(const SetSizeMsg* msg) {
  if (kestrix::DumpsOff()) return;
  Title("--- SetSize Message ---\n", &msg->header);
  DumpFields(msg, wire::SetSizeMsg::kLayout);
}

void SPSUP_DumpCloseMsg(const CloseMsg* msg) {
  if (kestrix::DumpsOff()) return;
  Title("--- Close Message ---\n", &msg->header);
  DumpFields(msg, wire::CloseMsg::kLayout);
}

// ---- reply dumps ----

void SPSUP_DumpGetVolumeReply(const GetVolumeReply* reply, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetVolume Reply Message ---\n", &reply->header);
  DumpFields(reply, wire::GetVolumeReply::kLayout);
  kestrix::DumpVolInfoWithin(
      &reply->volInfo, LimitFromLength(reply->header.length, wire::GetVolumeReply::volInfo.offset));
}

void SPSUP_DumpGetInitialMapReply(const GetInitialMapReply* reply, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetInitalMap Reply Message ---\n", &reply->header);
  DumpFields(reply, wire::GetInitialMapReply::kLayout);
  kestrix::DumpFSMapInfoWithin(
      &reply->map, LimitFromLength(reply->header.length, wire::GetInitialMapReply::map.offset));
}

void SPSUP_DumpGetExtendedMapReply(const GetExtendedMapReply* reply, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  Title("--- GetExtendedMap Reply Message ---\n", &reply->header);
  DumpFields(reply, wire::GetExtendedMapReply::kLayout);
  kestrix::DumpFSMapInfoWithin(
      &reply->map, LimitFromLength(reply->header.length, wire::GetExtendedMapReply::map.offset));
}

void SPSUP_DumpSetSizeReply(const SetSizeReply* reply, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  Title("--- SetSize Reply Message ---\n", &reply->header);
  DumpFields(reply, wire::SetSizeReply::kLayout);
}

void SPSUP_DumpCloseReply(const CloseReply* reply, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  Title("--- Close Reply Message ---\n", &reply->header);
  DumpFields(reply, wire::CloseReply::kLayout);
}

void SPSUP_DumpMessage(const LanHeader* msg, FSULONG size) {
  if (kestrix::DumpsOff()) return;
  if (msg == nullptr) return;
#define KX_DUMP_CASES(name, code, Request, Reply)                            \
  case code:                                                                 \
    kestrix::DumpBody(reinterpret_cast<const Request*>(msg), size);          \
    break;                                                                   \
  case -(code):                                                              \
    kestrix::DumpBody(reinterpret_cast<const Reply*>(msg), size);            \
    break;
  switch (msg->functionCode) {
    KX_WIRE_FUNCTIONS(KX_DUMP_CASES)
    default:
      break;
  }
#undef KX_DUMP_CASES
}

}  // extern "C"
