// Tokenizer: counts and extracts the fields of a NUL-terminated text split at
// one separator character. Empty fields count and keep their index, so a
// passwd line's sixth field is token 5 whatever the fields before it hold.
#include "utils/token.h"

extern "C" {

int32_t token_getNumTokens(const char* text, char separator) {
  if (text == nullptr || text[0] == '\0') return 0;
  const signed char sep = static_cast<signed char>(separator);
  int32_t count = 0;
  const char* p = text;
  for (; *p != '\0'; ++p) {
    if (static_cast<signed char>(*p) == sep) ++count;
  }
  // A separator at the very end opens no further token.
  if (static_cast<signed char>(p[-1]) != sep) ++count;
  return count;
}

char* token_getToken(const char* text, char separator, int32_t index, char* out,
                     int32_t outSize) {
  if (outSize <= 0) return out;
  out[0] = '\0';
  if (text == nullptr) return out;
  const signed char sep = static_cast<signed char>(separator);
  int32_t seen = 0;
  int32_t copied = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (static_cast<signed char>(*p) == sep) {
      if (++seen > index) break;
    } else if (seen == index && copied < outSize - 1) {
      out[copied++] = *p;
    }
  }
  out[copied] = '\0';
  return out;
}

}  // extern "C"
