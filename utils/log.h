// The daemon's logger. OSL_Log takes a severity, 0 (Panic) through 12
// (High), and drops the line when that is above the level g_LogLevel points
// at; the pointer is followed on each call, so a level change shows at once.
// Lines go to syslog, to standard output, or to a file that is opened and
// closed around every line. Panic (0) dumps core after logging.
//
// OSL_SetLog may switch the destination while other threads log; a line is
// never split between the old and the new one. Whatever a client sent is
// wrapped in kestrix::LogSafe before it reaches a format, so it cannot fake
// a log line.
#ifndef KESTRIX_UTILS_LOG_H_
#define KESTRIX_UTILS_LOG_H_

#include "utils/plugin_api.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  KSX_PANIC = 0,
  KSX_PRINT = 1,
  KSX_ERROR = 2,
  KSX_INFO = 3,
  KSX_SP = 4,
  KSX_HOOK = 5,
  KSX_FSF = 6,
  KSX_CACHE = 7,
  KSX_LOGIO = 8,
  KSX_PHYSIO = 9,
  KSX_DEBUG1 = 10,
  KSX_DEBUG2 = 11,
  KSX_HIGH = 12,
};

// The current level, read on every call. The daemon reads and writes both the
// pointer and the int with atomic loads and stores.
extern int* g_LogLevel;
// "SYSTEM", "" (standard output) or a file path; changed only by OSL_SetLog.
extern char g_filename[1024];
extern const char* LogLevel2Str[13];

void OSL_Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void OSL_SetLog(int* levelPointer, const char* destination, const char* ident);
int GetLogLevel(void);
KESTRIX_FOR_PLUGINS int syslogfile(void);
void ksx_setLogLevel(void);
void ForceCore(void) __attribute__((noreturn));

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// Writes level into the int g_LogLevel points at; every thread sees it at
// its next log call.
void StoreLogLevel(int level);
// g_LogLevel itself, for handing to the libraries' FS_SetLog.
int* LogLevelPointer();
// True when OSL_SetLog would take destination as a file name: neither empty
// nor "SCREEN" nor "SYSTEM" (in any case).
bool IsFileDestination(const char* destination);

// A text for one argument of a log line, rendered so that it cannot break
// the line: control bytes (0x01-0x1F, 0x7F), the C1 controls U+0080-U+009F
// and bytes that are not part of well-formed UTF-8 appear as \xNN. Other
// characters, backslashes included, stay as they are. A text that needs no
// escape is used in place; an escaped one is cut, at a whole character, to
// the 1023 bytes a log line can hold.
class LogSafe {
 public:
  explicit LogSafe(const char* text);
  LogSafe(const LogSafe&) = delete;
  LogSafe& operator=(const LogSafe&) = delete;
  const char* c_str() const { return text_; }

 private:
  const char* text_;
  char escaped_[1024];
};

// Where ksx_setLogLevel writes; tests point it away from /opt.
void SetLevelFilePathForTesting(const char* path);

}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_LOG_H_
