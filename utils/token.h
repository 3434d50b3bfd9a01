// Splitting a NUL-terminated text at one separator character. Empty tokens
// between separators count and keep their index.
#ifndef KESTRIX_UTILS_TOKEN_H_
#define KESTRIX_UTILS_TOKEN_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int32_t token_getNumTokens(const char* text, char separator);
char* token_getToken(const char* text, char separator, int32_t index, char* out,
                     int32_t outSize);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KESTRIX_UTILS_TOKEN_H_
