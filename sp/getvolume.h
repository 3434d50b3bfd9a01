// GetVolume: the volume under a share name (or an absolute path), with its
// disks. Remembers which library serves the volume, for the map requests
// that follow.
#ifndef KESTRIX_SP_GETVOLUME_H_
#define KESTRIX_SP_GETVOLUME_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanGetVolume(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_GETVOLUME_H_
