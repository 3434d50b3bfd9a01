// SendStringCmd: a text command from a client. "LOG" changes how much the
// daemon and its libraries log and where; every command gets result 0.
#ifndef KESTRIX_SP_SENDSTRINGCMD_H_
#define KESTRIX_SP_SENDSTRINGCMD_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanSendStringCmd(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_SENDSTRINGCMD_H_
