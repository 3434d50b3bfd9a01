// Logging: the level test, the three destinations (system log, standard
// output, a file opened per message), the lock that lets the destination
// change while other threads log, the escaping of client text, the level
// file and the Panic exit.
#include "utils/log.h"
#include "utils/kxstats.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include "utils/osl.h"

namespace {

constexpr int kMessageBufferSize = 1024;
constexpr int kLineBufferSize = kMessageBufferSize + 16;  // level name, blank, text
constexpr int kLevelFileSize = 32;
constexpr const char kDefaultLevelFile[] = "/opt/Kestrix/loglevel.txt";

// The level in force until OSL_SetLog points g_LogLevel elsewhere.
int s_defaultLevel = KSX_ERROR;

// Where ksx_setLogLevel writes.
char s_levelFilePath[1024] = "/opt/Kestrix/loglevel.txt";

// Held shared while a line is written (open, write, close) and exclusively
// while OSL_SetLog changes g_filename. Writers are preferred so that a
// steady stream of lines cannot hold a switch off for ever; nothing takes
// the lock twice in one thread.
pthread_rwlock_t s_destinationLock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

class DestinationGuard {
 public:
  explicit DestinationGuard(bool exclusive) {
    if (exclusive) pthread_rwlock_wrlock(&s_destinationLock);
    else pthread_rwlock_rdlock(&s_destinationLock);
  }
  ~DestinationGuard() { pthread_rwlock_unlock(&s_destinationLock); }
  DestinationGuard(const DestinationGuard&) = delete;
  DestinationGuard& operator=(const DestinationGuard&) = delete;
};

const char* LevelName(int level) {
  if (level < KSX_PANIC || level > KSX_HIGH) return "Unknown";
  return LogLevel2Str[level];
}

int* LevelPointer() { return __atomic_load_n(&g_LogLevel, __ATOMIC_ACQUIRE); }

bool IsSystemLog(const char* destination) { return strcasecmp(destination, "SYSTEM") == 0; }

// Writes all of data to fd, or as much as the file takes.
void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// One formatted message to the current destination, under the shared lock.
// File and screen lines are composed first and leave in one write, so that
// lines of other threads and processes never land inside them.
void WriteLine(int level, const char* text) {
  DestinationGuard guard(false);
  if (IsSystemLog(g_filename)) {
    // The text goes in as an argument: a '%' inside it is not a directive.
    syslog(LOG_DAEMON | LOG_ERR, "%s", text);
    return;
  }
  char line[kLineBufferSize];
  const int n = snprintf(line, sizeof(line), "%s %s", LevelName(level), text);
  size_t size = n < 0 ? 0 : static_cast<size_t>(n);
  if (size >= sizeof(line)) size = sizeof(line) - 1;
  if (g_filename[0] != '\0') {
    // The same file opening as fopen's "a".
    int fd = open(g_filename, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd >= 0) {
      WriteAll(fd, line, size);
      close(fd);
      return;
    }
  }
  // Flushed after every message so that lines reach a pipe or a redirected
  // file at once and in order with other writers.
  flockfile(stdout);
  fwrite(line, 1, size, stdout);
  fflush(stdout);
  funlockfile(stdout);
}

// Length of the well-formed UTF-8 character of two or more bytes at s, or
// 0 when the bytes there are not one.
size_t Utf8Length(const unsigned char* s) {
  const unsigned char lead = s[0];
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (s[1] < low || s[1] > high) return 0;  // also stops at the terminator
  for (size_t i = 2; i < length; ++i) {
    if (s[i] < 0x80 || s[i] > 0xBF) return 0;
  }
  return length;
}

// The length of the character at s (a byte that starts none counts as one)
// and whether it is written escaped: control bytes, the C1 controls U+0080
// to U+009F (C2 80 to C2 9F) and bytes outside well-formed UTF-8.
size_t Character(const unsigned char* s, bool* escape) {
  if (*s < 0x80) {
    *escape = *s < 0x20 || *s == 0x7F;
    return 1;
  }
  const size_t length = Utf8Length(s);
  *escape = length == 0 || (s[0] == 0xC2 && s[1] <= 0x9F);
  return length == 0 ? 1 : length;
}

}  // namespace

extern "C" {

int* g_LogLevel = &s_defaultLevel;
char g_filename[1024] = "SYSTEM";
const char* LogLevel2Str[13] = {"Panic", "Print", "Error",  "Info",   "SP",     "Hook", "FSF",
                                "Cache", "LogIO", "PhysIO", "Debug1", "Debug2", "High"};

void OSL_Log(int level, const char* format, ...) {
  // The level test comes first so that a suppressed message costs nothing.
  if (level <= GetLogLevel()) {
    char text[kMessageBufferSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    WriteLine(level, text);
    kestrix::stats::CountLogLine(level);
  }
  if (level == KSX_PANIC) ForceCore();
}

void OSL_SetLog(int* levelPointer, const char* destination, const char* ident) {
  __atomic_store_n(&g_LogLevel, levelPointer != nullptr ? levelPointer : &s_defaultLevel,
                   __ATOMIC_RELEASE);

  // Composed apart, so that the lock is held only for the copy (and so that
  // a destination that is g_filename itself is read before it is written).
  char next[sizeof(g_filename)];
  if (destination == nullptr || destination[0] == '\0') {
    strcpy(next, "SYSTEM");
  } else if (strcasecmp(destination, "SCREEN") == 0) {
    next[0] = '\0';
  } else {
    strncpy(next, destination, sizeof(next) - 1);
    next[sizeof(next) - 1] = '\0';
  }

  if (ident == nullptr) ident = "kestrix";
  {
    DestinationGuard guard(true);
    memcpy(g_filename, next, sizeof(g_filename));
    if (IsSystemLog(g_filename)) openlog(ident, LOG_CONS, LOG_DAEMON);
  }
  if (strcasecmp(ident, "KESTRIXFS") == 0) ksx_setLogLevel();
}

int GetLogLevel(void) { return __atomic_load_n(LevelPointer(), __ATOMIC_RELAXED); }

int syslogfile(void) {
  DestinationGuard guard(false);
  return IsSystemLog(g_filename) ? 1 : 0;
}

void ksx_setLogLevel(void) {
  int fd = open(s_levelFilePath, O_RDWR | O_CREAT | O_TRUNC, 0666);
  char digits[kLevelFileSize];
  memset(digits, 0, sizeof(digits));
  snprintf(digits, sizeof(digits), "%d", GetLogLevel());
  if (fd >= 0) {
    // Failures are of no consequence to the daemon; the result is dropped.
    ssize_t written = write(fd, digits, sizeof(digits));
    (void)written;
    close(fd);
  }
}

void ForceCore(void) {
  OSL_SleepMS(3000);
  abort();
}

}  // extern "C"

namespace kestrix {

void StoreLogLevel(int level) { __atomic_store_n(LevelPointer(), level, __ATOMIC_RELAXED); }

int* LogLevelPointer() { return LevelPointer(); }

bool IsFileDestination(const char* destination) {
  return destination != nullptr && destination[0] != '\0' &&
         strcasecmp(destination, "SCREEN") != 0 && !IsSystemLog(destination);
}

LogSafe::LogSafe(const char* text) : text_(text != nullptr ? text : "") {
  const auto* start = reinterpret_cast<const unsigned char*>(text_);
  bool escape = false;
  const unsigned char* in = start;
  for (;;) {
    while (*in >= 0x20 && *in < 0x7F) ++in;  // printable ASCII, the usual case
    if (*in == 0) return;                     // nothing to escape: used in place
    in += Character(in, &escape);
    if (escape) break;
  }

  static constexpr char kHex[] = "0123456789abcdef";
  size_t used = 0;
  for (in = start; *in != 0;) {
    if (*in >= 0x20 && *in < 0x7F && used < sizeof(escaped_) - 1) {
      escaped_[used++] = static_cast<char>(*in++);
      continue;
    }
    const size_t length = Character(in, &escape);
    // Four output bytes per escaped byte; a character is never split.
    if (used + (escape ? 4 * length : length) > sizeof(escaped_) - 1) break;
    for (size_t i = 0; i < length; ++i, ++in) {
      if (escape) {
        escaped_[used++] = '\\';
        escaped_[used++] = 'x';
        escaped_[used++] = kHex[*in >> 4];
        escaped_[used++] = kHex[*in & 0xF];
      } else {
        escaped_[used++] = static_cast<char>(*in);
      }
    }
  }
  escaped_[used] = '\0';
  text_ = escaped_;
}

void SetLevelFilePathForTesting(const char* path) {
  const char* chosen = path != nullptr ? path : kDefaultLevelFile;
  strncpy(s_levelFilePath, chosen, sizeof(s_levelFilePath) - 1);
  s_levelFilePath[sizeof(s_levelFilePath) - 1] = '\0';
}

}  // namespace kestrix
