// The daemon's one tokenizer and the text helpers of the string commands.
//
// token_*: fields of a NUL-terminated text split at one separator character;
// empty fields count and keep their index (a passwd line's sixth field is
// token 5 whatever the fields before it hold).
// fsf_breakCommand, mystrcasecmp, myatoi: how a string command's text is cut
// into pieces, its command word compared and its numbers read.
#ifndef KESTRIX_UTILS_TOKEN_H_
#define KESTRIX_UTILS_TOKEN_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int32_t token_getNumTokens(const char* text, char separator);
char* token_getToken(const char* text, char separator, int32_t index, char* out,
                     int32_t outSize);

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

#endif  // KESTRIX_UTILS_TOKEN_H_
