// GetInitialMap: a client opens a file. Grants a lease and answers with its
// key, both cookies and the first extents of the file's map.
#ifndef KESTRIX_SP_GETINITIALMAP_H_
#define KESTRIX_SP_GETINITIALMAP_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanGetInitialMap(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_GETINITIALMAP_H_
