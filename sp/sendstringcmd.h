// String commands (function code 7): the text helpers the command is parsed
// with. The handler itself, SP_LanSendStringCmd, is declared in
// sp/handlers.h.
#ifndef KESTRIX_SP_SENDSTRINGCMD_H_
#define KESTRIX_SP_SENDSTRINGCMD_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { FSF_COMMAND_PIECES = 10 };

// Splits text in place into ten pieces: at every '|' when the rest holds
// one, else at the first space; runs of separators give empty pieces, and
// pieces past the end point at one shared empty text. Returns 1 plus the
// number of separators consumed.
int fsf_breakCommand(const char* pieces[FSF_COMMAND_PIECES], char* text);
// 0 when a and b are equal, folding only a to z to upper case; else -1.
int mystrcasecmp(const char* a, const char* b);
// Digits read as a decimal number, every '-' before the first other
// character flipping the sign; no white space is skipped and the value
// wraps in 64 bits.
int64_t myatoi(const char* text);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KESTRIX_SP_SENDSTRINGCMD_H_
