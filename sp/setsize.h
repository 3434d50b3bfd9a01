// SetSize: a lease holder changes the file's length (the allocation stays);
// a change that succeeds renews the lease.
#ifndef KESTRIX_SP_SETSIZE_H_
#define KESTRIX_SP_SETSIZE_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanSetSize(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_SETSIZE_H_
