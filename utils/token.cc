// The tokenizer: every split of a text at a separator in the daemon goes
// through FieldEnd, for the configuration and password files as for the
// string commands.
#include "utils/token.h"

namespace {

// The separator ending the field that starts at field, or the text's NUL.
template <typename Char>
Char* FieldEnd(Char* field, char separator) {
  while (*field != '\0' && *field != separator) ++field;
  return field;
}

// Where every command piece past the end of the text points.
char s_emptyPiece[1] = "";

char FoldAtoZ(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

extern "C" {

int32_t token_getNumTokens(const char* text, char separator) {
  if (text == nullptr || text[0] == '\0') return 0;
  int32_t count = 1;
  for (const char* end = FieldEnd(text, separator); *end != '\0';
       end = FieldEnd(end + 1, separator)) {
    // A separator at the very end opens no further token.
    if (end[1] != '\0') ++count;
  }
  return count;
}

char* token_getToken(const char* text, char separator, int32_t index, char* out,
                     int32_t outSize) {
  if (outSize <= 0) return out;
  out[0] = '\0';
  if (text == nullptr || index < 0) return out;
  const char* field = text;
  for (int32_t i = 0; i < index; ++i) {
    field = FieldEnd(field, separator);
    if (*field == '\0') return out;
    ++field;
  }
  const char* const end = FieldEnd(field, separator);
  int32_t copied = 0;
  for (; field != end && copied < outSize - 1; ++field) out[copied++] = *field;
  out[copied] = '\0';
  return out;
}

int fsf_breakCommand(const char* pieces[FSF_COMMAND_PIECES], char* text) {
  int count = 1;
  char* rest = text;
  for (int i = 0; i < FSF_COMMAND_PIECES; ++i) {
    pieces[i] = rest;
    char* separator = FieldEnd(rest, '|');
    if (*separator == '\0') separator = FieldEnd(rest, ' ');
    if (*separator != '\0') {
      *separator = '\0';
      ++count;
      rest = separator + 1;
    } else {
      rest = s_emptyPiece;
    }
  }
  return count;
}

int mystrcasecmp(const char* a, const char* b) {
  for (; *a != '\0'; ++a, ++b) {
    if (*b == '\0' || FoldAtoZ(*a) != FoldAtoZ(*b)) return -1;
  }
  return *b == '\0' ? 0 : -1;
}

int64_t myatoi(const char* text) {
  uint64_t value = 0;  // unsigned, so that a long run of digits wraps
  bool negative = false;
  for (; *text != '\0'; ++text) {
    if (*text == '-') {
      negative = !negative;
    } else if (*text >= '0' && *text <= '9') {
      value = value * 10 + static_cast<uint64_t>(*text - '0');
    } else {
      break;
    }
  }
  return static_cast<int64_t>(negative ? 0 - value : value);
}

}  // extern "C"
