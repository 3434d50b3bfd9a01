// Logging: one call, OSL_Log, with a level from 0 (Panic) to 12 (High).
//
// A message is written when its level is at most the current level, which is
// read through g_LogLevel on every call. The destination is the system log,
// standard output, or a file opened for each message. A level-0 message ends
// the process with a core image.
#ifndef KESTRIX_UTILS_LOG_H_
#define KESTRIX_UTILS_LOG_H_

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

extern int* g_LogLevel;          // the current level, read on every call
extern char g_filename[1024];    // "SYSTEM", "" (standard output) or a file path
extern const char* LogLevel2Str[13];

void OSL_Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void OSL_SetLog(int* levelPointer, const char* destination, const char* ident);
int GetLogLevel(void);
int syslogfile(void);
void ksx_setLogLevel(void);
void ForceCore(void) __attribute__((noreturn));

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Where ksx_setLogLevel writes; tests point it away from /opt.
void SetLevelFilePathForTesting(const char* path);
}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_LOG_H_
