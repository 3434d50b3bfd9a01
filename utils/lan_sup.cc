// LanHeader support: the once-per-request byte-order conversion of the
// header and its diagnostic dumps.
#include "utils/lan_sup.h"

#include "utils/log.h"
#include "utils/utils.h"

namespace {

void DumpHeaderAt(int level, const LanHeader* header) {
  if (GetLogLevel() < level) return;  // no ID text for lines nobody writes
  char id[3 * LAN_MSGID_SIZE + 1];
  OSL_Log(level, "functionCode %d\n", header->functionCode);
  OSL_Log(level, "length %d\n", static_cast<int>(header->length));
  OSL_Log(level, "messageID %s\n", bytesToString(header->messageID, LAN_MSGID_SIZE, id));
  OSL_Log(level, "revision %d\n", header->revision);
  OSL_Log(level, "result %d\n", header->result);
}

}  // namespace

extern "C" {

void LANSUP_TransLanHeader(LanHeader* header) {
  if (header->byteOrder == LAN_BYTEORDER_MARK) return;
  doendian(&header->flags, sizeof header->flags);
  doendian(&header->functionCode, sizeof header->functionCode);
  doendian(&header->length, sizeof header->length);
  doendian(&header->result, sizeof header->result);
  doendian(&header->revision, sizeof header->revision);
  doendian(&header->pathSeparator, sizeof header->pathSeparator);
}

void LANSUP_DumpLanHeader(const LanHeader* header) { DumpHeaderAt(KSX_SP, header); }

void LANSUP_PrintLanHeader(const LanHeader* header) {
  OSL_Log(KSX_PRINT, "Header information for message\n");
  DumpHeaderAt(KSX_PRINT, header);
}

}  // extern "C"
