// Logging: the level test, the three destinations (system log, standard
// output, a file opened per message), the level file and the Panic exit.
#include "utils/log.h"

#include <fcntl.h>
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
constexpr int kLevelFileSize = 32;
constexpr const char kDefaultLevelFile[] = "/opt/Kestrix/loglevel.txt";

// The level in force until OSL_SetLog points g_LogLevel elsewhere.
int s_defaultLevel = KSX_ERROR;

// Where ksx_setLogLevel writes.
char s_levelFilePath[1024] = "/opt/Kestrix/loglevel.txt";

const char* LevelName(int level) {
  if (level < KSX_PANIC || level > KSX_HIGH) return "Unknown";
  return LogLevel2Str[level];
}

}  // namespace

extern "C" {

int* g_LogLevel = &s_defaultLevel;
char g_filename[1024] = "SYSTEM";
const char* LogLevel2Str[13] = {"Panic", "Print", "Error",  "Info",   "SP",     "Hook", "FSF",
                                "Cache", "LogIO", "PhysIO", "Debug1", "Debug2", "High"};

void OSL_Log(int level, const char* format, ...) {
  // The level test comes first so that a suppressed message costs nothing.
  if (level <= *g_LogLevel) {
    char text[kMessageBufferSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);

    if (syslogfile()) {
      // The text goes in as an argument: a '%' inside it is not a directive.
      syslog(LOG_DAEMON | LOG_ERR, "%s", text);
    } else {
      FILE* file = g_filename[0] != '\0' ? fopen(g_filename, "a") : nullptr;
      if (file != nullptr) {
        fprintf(file, "%s %s", LevelName(level), text);
        fclose(file);
      } else {
        // Flushed after every message so that lines reach a pipe or a
        // redirected file at once and in order with other writers.
        fprintf(stdout, "%s %s", LevelName(level), text);
        fflush(stdout);
      }
    }
  }
  if (level == KSX_PANIC) ForceCore();
}

void OSL_SetLog(int* levelPointer, const char* destination, const char* ident) {
  g_LogLevel = levelPointer != nullptr ? levelPointer : &s_defaultLevel;

  if (destination == nullptr || destination[0] == '\0') {
    strcpy(g_filename, "SYSTEM");
  } else if (strcasecmp(destination, "SCREEN") == 0) {
    g_filename[0] = '\0';
  } else {
    strncpy(g_filename, destination, sizeof(g_filename) - 1);
    g_filename[sizeof(g_filename) - 1] = '\0';
  }

  if (ident == nullptr) ident = "kestrix";
  if (syslogfile()) openlog(ident, LOG_CONS, LOG_DAEMON);
  if (strcasecmp(ident, "KESTRIXFS") == 0) ksx_setLogLevel();
}

int GetLogLevel(void) { return *g_LogLevel; }

int syslogfile(void) { return strcasecmp(g_filename, "SYSTEM") == 0 ? 1 : 0; }

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

void SetLevelFilePathForTesting(const char* path) {
  const char* chosen = path != nullptr ? path : kDefaultLevelFile;
  strncpy(s_levelFilePath, chosen, sizeof(s_levelFilePath) - 1);
  s_levelFilePath[sizeof(s_levelFilePath) - 1] = '\0';
}

}  // namespace kestrix
