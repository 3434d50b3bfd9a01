// LanHeader support: the once-per-request byte-order conversion of the
// header and its diagnostic dumps, both read from the header's wire rows.
#include "utils/lan_sup.h"

#include "utils/field_walk.h"
#include "utils/log.h"

namespace {

void DumpHeaderAt(int level, const LanHeader* header) {
  if (GetLogLevel() < level) return;  // no ID text for lines nobody writes
  kestrix::DumpFields(header, kestrix::wire::LanHeader::kLayout, level);
}

}  // namespace

extern "C" {

void LANSUP_TransLanHeader(LanHeader* header) {
  if (header->byteOrder == LAN_BYTEORDER_MARK) return;
  kestrix::ConvertFields(header, kestrix::wire::LanHeader::kLayout);
}

void LANSUP_DumpLanHeader(const LanHeader* header) { DumpHeaderAt(KSX_SP, header); }

void LANSUP_PrintLanHeader(const LanHeader* header) {
  OSL_Log(KSX_PRINT, "Header information for message\n");
  DumpHeaderAt(KSX_PRINT, header);
}

}  // extern "C"
