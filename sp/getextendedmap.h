// GetExtendedMap: further extents of a file its lease holder has open; the
// lease is renewed when the library answers.
#ifndef KESTRIX_SP_GETEXTENDEDMAP_H_
#define KESTRIX_SP_GETEXTENDEDMAP_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanGetExtendedMap(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_GETEXTENDEDMAP_H_
