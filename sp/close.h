// Close: a client ends its lease, optionally with the file's final size;
// the last lease on a file to go unlocks the file's map.
#ifndef KESTRIX_SP_CLOSE_H_
#define KESTRIX_SP_CLOSE_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanClose(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_CLOSE_H_
