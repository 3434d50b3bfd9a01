// FSUNI strings and byte order: lengths and copies of FSUNI text, the
// conversions between FSUNI (UTF-16 units) and UTF-8, in-place byte
// reversal of wire fields, and the hexadecimal rendering used by the dumps.
//
// Every conversion is a single pass in the caller's buffers; nothing here
// allocates.
#include "utils/utils.h"

#include <stdint.h>
#include <string.h>

#include <utility>

#include "utils/log.h"

namespace {

// Stores UTF-8 bytes into a destination of a fixed capacity. Bytes that find
// no room are dropped; the walk that produces them goes on regardless.
class Utf8Sink {
 public:
  Utf8Sink(char* destination, int32_t capacity)
      : destination_(destination), capacity_(capacity) {}

  void Put(uint32_t byte) {
    if (stored_ < capacity_) destination_[stored_++] = static_cast<char>(byte & 0xFF);
  }

  // Encodes one unit by itself as a one-, two- or three-byte sequence.
  void PutUnit(uint32_t u) {
    if (u < 0x80) {
      Put(u);
    } else if (u < 0x800) {
      Put(0xC0 | (u >> 6));
      Put(0x80 | (u & 0x3F));
    } else {
      Put(0xE0 | (u >> 12));
      Put(0x80 | ((u & 0xFFF) >> 6));
      Put(0x80 | (u & 0x3F));
    }
  }

  // Encodes a surrogate pair as one four-byte sequence.
  void PutPair(uint32_t high, uint32_t low) {
    const uint32_t p = ((high >> 6) & 0xF) + 1;
    Put(0xF0 | (p >> 2));
    Put(0x80 | ((p & 3) << 4) | ((high >> 2) & 0xF));
    Put(0x80 | ((high & 3) << 4) | ((low >> 6) & 0xF));
    Put(0x80 | (low & 0x3F));
  }

  // Terminates the text: after the stored bytes when there is room, else in
  // the last byte of the destination. Returns the count of stored bytes.
  int32_t Finish() {
    if (stored_ < capacity_) {
      destination_[stored_] = '\0';
    } else {
      destination_[capacity_ - 1] = '\0';
    }
    return stored_;
  }

 private:
  char* destination_;
  int32_t capacity_;
  int32_t stored_ = 0;
};

bool IsHighSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }
bool IsContinuation(uint8_t b) { return (b & 0xC0) == 0x80; }

// The UTF-8 to UTF-16 walk. Returns the units stored, or -1 for malformed
// input or a full destination; *stored always receives the units stored
// before the walk ended, so that a failed conversion can still be terminated.
int32_t Utf8ToUtf16(const char* source, int32_t bytes, FSUNI* destination,
                    int32_t capacityUnits, int32_t* stored) {
  const auto* src = reinterpret_cast<const uint8_t*>(source);
  int32_t count = 0;
  *stored = 0;
  if (bytes <= 0) return 0;

  // One unit is always kept free for the terminator.
  auto put = [&](uint32_t unit) {
    if (count >= capacityUnits - 1) return false;
    destination[count++] = static_cast<FSUNI>(unit & 0xFFFF);
    return true;
  };
  auto fail = [&]() {
    *stored = count;
    return -1;
  };

  int32_t i = 0;
  while (i < bytes) {
    const uint32_t b = src[i];
    if (b < 0x80) {
      if (!put(b)) return fail();
      i += 1;
    } else if ((b >> 5) == 6) {
      if (bytes - i < 2 || !IsContinuation(src[i + 1])) return fail();
      const uint32_t b1 = src[i + 1];
      if (!put(((b & 0x1F) << 6) | (b1 & 0x3F))) return fail();
      i += 2;
    } else if ((b >> 4) == 14) {
      if (bytes - i < 3 || !IsContinuation(src[i + 1]) || !IsContinuation(src[i + 2])) {
        return fail();
      }
      const uint32_t b1 = src[i + 1];
      const uint32_t b2 = src[i + 2];
      if (!put(((b & 0xF) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F))) return fail();
      i += 3;
    } else if ((b >> 3) == 30) {
      if (bytes - i < 4 || !IsContinuation(src[i + 1]) || !IsContinuation(src[i + 2]) ||
          !IsContinuation(src[i + 3])) {
        return fail();
      }
      const uint32_t b1 = src[i + 1];
      const uint32_t b2 = src[i + 2];
      const uint32_t b3 = src[i + 3];
      // Unsigned arithmetic: a plane of 0 (an overlong form) wraps instead
      // of going negative; such input needs no particular result.
      const uint32_t w = (((b & 7) << 2) | ((b1 >> 4) & 3)) - 1;
      if (!put(0xD800 | (w << 6) | ((b1 & 0xF) << 2) | ((b2 & 0x3F) >> 4))) return fail();
      if (!put(0xDC00 | ((b2 & 0xF) << 6) | (b3 & 0x3F))) return fail();
      i += 4;
    } else {
      return fail();
    }
  }
  *stored = count;
  return count;
}

}  // namespace

extern "C" {

FSULONG fsunilength(const FSUNI* s) {
  FSULONG n = 0;
  while (s[n] != 0) ++n;
  return n;
}

FSUNI* fsunicpy(FSUNI* destination, const FSUNI* source, FSULONG destinationBytes) {
  if (destinationBytes < 2) return destination;
  const FSULONG limit = destinationBytes / 2 - 1;
  FSULONG i = 0;
  for (; i < limit && source[i] != 0; ++i) destination[i] = source[i];
  destination[i] = 0;
  return destination;
}

char* fsuni2mb(char* destination, const FSUNI* source, int32_t capacityBytes) {
  if (capacityBytes <= 0) return destination;
  utf16array_to_utf8asciz(source, static_cast<int32_t>(fsunilength(source)), destination,
                          capacityBytes);
  return destination;
}

int32_t utf16array_to_utf8asciz(const FSUNI* source, int32_t units, char* destination,
                                int32_t capacityBytes) {
  return kestrix::Utf16ToUtf8(source, units, destination, capacityBytes, true);
}

FSUNI* mb2fsuni(FSUNI* destination, const char* source, int32_t capacityUnits) {
  if (capacityUnits <= 0) return destination;
  int32_t stored = 0;
  Utf8ToUtf16(source, static_cast<int32_t>(strlen(source)), destination, capacityUnits,
              &stored);
  // Success or not, the units stored so far are terminated; at most
  // capacityUnits - 1 units are ever stored, so the terminator fits.
  destination[stored] = 0;
  return destination;
}

int32_t utf8array_to_utf16asciz(const char* source, int32_t bytes, FSUNI* destination,
                                int32_t capacityUnits) {
  int32_t stored = 0;
  return Utf8ToUtf16(source, bytes, destination, capacityUnits, &stored);
}

void doendian(void* field, int32_t width) {
  auto* p = static_cast<uint8_t*>(field);
  for (int32_t lo = 0, hi = width - 1; lo < hi; ++lo, --hi) std::swap(p[lo], p[hi]);
}

void endianizeFsUniArray(void* area, int32_t bytes) {
  auto* p = static_cast<uint8_t*>(area);
  for (int32_t i = 0; i + 1 < bytes; i += 2) std::swap(p[i], p[i + 1]);
}

char* bytesToString(const void* bytes, int32_t n, char* out) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* b = static_cast<const uint8_t*>(bytes);
  int32_t len = 0;
  for (int32_t i = 0; i < n; ++i) {
    out[len++] = kDigits[b[i] >> 4];
    out[len++] = kDigits[b[i] & 0xF];
    out[len++] = ' ';
  }
  while (len > 0 && (out[len - 1] == '0' || out[len - 1] == ' ')) --len;
  out[len] = '\0';
  return out;
}

int32_t checkDataSizes(void) {
  OSL_Log(KSX_SP, "size of FSLONG should be %d, is %d\n", 4, static_cast<int>(sizeof(FSLONG)));
  OSL_Log(KSX_SP, "size of FSULONG should be %d, is %d\n", 4,
          static_cast<int>(sizeof(FSULONG)));
  OSL_Log(KSX_SP, "size of FS64LONG should be %d, is %d\n", 8,
          static_cast<int>(sizeof(FS64LONG)));
  OSL_Log(KSX_SP, "size of FSUNI should be %d, is %d\n", 2, static_cast<int>(sizeof(FSUNI)));
  OSL_Log(KSX_SP, "size of FS128LONG should be %d, is %d\n", 16,
          static_cast<int>(sizeof(FS128LONG)));
  return 0;
}

}  // extern "C"

namespace kestrix {

int32_t Utf16ToUtf8(const FSUNI* source, int32_t units, char* destination, int32_t capacityBytes,
                    bool report) {
  if (capacityBytes <= 0) return 0;
  Utf8Sink sink(destination, capacityBytes);
  // Errors are counted during the walk and reported once at its end, so a
  // text of many broken units costs one line, not one line per unit.
  int32_t invalid = 0;
  uint32_t firstHigh = 0, firstNext = 0;
  bool noDataLeft = false;
  int32_t i = 0;
  while (i < units) {
    const uint32_t u = source[i];
    if (IsHighSurrogate(u)) {
      if (i + 1 >= units) {
        noDataLeft = true;
        sink.PutUnit(u);
        i += 1;
        continue;
      }
      const uint32_t next = source[i + 1];
      if (IsLowSurrogate(next)) {
        sink.PutPair(u, next);
        i += 2;
        continue;
      }
      if (invalid++ == 0) {
        firstHigh = u;
        firstNext = next;
      }
      sink.PutUnit(u);
      i += 1;
      continue;
    }
    sink.PutUnit(u);
    i += 1;
  }
  if (report && invalid == 1) {
    OSL_Log(KSX_ERROR, "utf16array_to_utf8asciz: invalid surrogate %04x , %04x \n", firstHigh,
            firstNext);
  } else if (report && invalid > 1) {
    OSL_Log(KSX_ERROR,
            "utf16array_to_utf8asciz: %d invalid surrogates in one text, the first %04x , %04x \n",
            invalid, firstHigh, firstNext);
  }
  if (report && noDataLeft) {
    OSL_Log(KSX_ERROR,
            "utf16array_to_utf8asciz: surrogate found with no data left in source string\n");
  }
  return sink.Finish();
}

FSULONG fsuninlength(const FSUNI* s, FSULONG maxUnits) {
  FSULONG n = 0;
  while (n < maxUnits && s[n] != 0) ++n;
  return n;
}

}  // namespace kestrix
