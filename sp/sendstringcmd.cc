// SendStringCmd handler: free-form text commands from a client. Only "LOG"
// does something (a new log level and destination, for the daemon and for
// each library that has FS_SetLog); every command, known or not, gets 0.
//
// With KESTRIX_LOG_DIR set, a "LOG" file destination is taken only when it
// resolves (".." and symbolic links followed) to a file inside that
// directory; the file is then logged to by its resolved name.
#include "sp/sendstringcmd.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "sp/fsmdcsp.h"
#include "sp/handler_common.h"
#include "sp/handlers.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "utils/config.h"
#include "utils/dgram.h"
#include "utils/log.h"
#include "utils/utils.h"

static_assert(kestrix::kReadableInPlace<SendStringCmdMsg>);

namespace {

constexpr int kCommandBytes = 1024;

// Where every piece past the end of the text points.
char s_emptyPiece[1] = "";

char FoldAtoZ(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : "";
}

// The file destination names, resolved, when it lies inside dir; "" when it
// does not, or when either cannot be resolved. The file itself may be
// missing, but not its directory; a symbolic link must lead somewhere.
std::string FileInside(const std::string& destination, const std::string& dir) {
  std::string base = RealPath(dir);
  if (base.empty()) return "";
  if (base.back() != '/') base += '/';

  const size_t slash = destination.rfind('/');
  const std::string leaf = slash == std::string::npos ? destination : destination.substr(slash + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") return "";
  std::string path = RealPath(slash == std::string::npos ? "."
                              : slash == 0               ? "/"
                                                         : destination.substr(0, slash));
  if (path.empty()) return "";
  if (path.back() != '/') path += '/';
  path += leaf;

  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) path = RealPath(path);
  if (path.size() <= base.size() || path.compare(0, base.size(), base) != 0) return "";
  if (path.size() >= sizeof(g_filename)) return "";
  return path;
}

}  // namespace

extern "C" {

int fsf_breakCommand(const char* pieces[FSF_COMMAND_PIECES], char* text) {
  int count = 1;
  char* rest = text;
  for (int i = 0; i < FSF_COMMAND_PIECES; ++i) {
    pieces[i] = rest;
    char* separator = strchr(rest, '|');
    if (separator == nullptr) separator = strchr(rest, ' ');
    if (separator != nullptr) {
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

LanHeader* SP_LanSendStringCmd(LanHeader* request, const uint8_t* /*commCookie*/) {
  auto* msg = reinterpret_cast<SendStringCmdMsg*>(request);
  // The text ends at its first 0 unit, at the end of the command area, or
  // where the datagram ended (the listener reads the bytes past it as zero).
  char command[kCommandBytes];
  const FSULONG units = kestrix::fsuninlength(msg->command, SP_PATH_UNITS);
  utf16array_to_utf8asciz(msg->command, static_cast<int32_t>(units), command, sizeof(command));
  const bool traced = GetLogLevel() >= KSX_DEBUG1;  // escaped texts only when written
  if (traced) OSL_Log(KSX_DEBUG1, "Got command [%s]\n", kestrix::LogSafe(command).c_str());

  const char* pieces[FSF_COMMAND_PIECES];
  fsf_breakCommand(pieces, command);
  if (traced) {
    OSL_Log(KSX_DEBUG1, "strs 1:%s  2:%s  3:%s  4:%s\n", kestrix::LogSafe(pieces[0]).c_str(),
            kestrix::LogSafe(pieces[1]).c_str(), kestrix::LogSafe(pieces[2]).c_str(),
            kestrix::LogSafe(pieces[3]).c_str());
  }

  if (mystrcasecmp(pieces[0], "LOG") == 0) {
    const int level = static_cast<int>(myatoi(pieces[1]));  // the low 32 bits
    kestrix::StoreLogLevel(level);

    // The old destination stays when a confined file destination is refused.
    std::string destination = pieces[2];
    bool taken = true;
    const std::string confined = kestrix::LogDirectory();
    if (!confined.empty() && kestrix::IsFileDestination(pieces[2])) {
      destination = FileInside(destination, confined);
      taken = !destination.empty();
      if (!taken) {
        OSL_Log(KSX_ERROR,
                "LOG destination [%s] is not a file inside KESTRIX_LOG_DIR [%s]; the log "
                "destination is unchanged\n",
                kestrix::LogSafe(pieces[2]).c_str(), kestrix::LogSafe(confined.c_str()).c_str());
      }
    }
    if (taken) OSL_SetLog(kestrix::LogLevelPointer(), destination.c_str(), "kestrixd");

    for (int i = 0; i < FSMDCSP_MAX_LIBS; ++i) {
      FsLibrary* library = kestrix::spState.libs[i];
      if (library == nullptr) continue;
      if (library->FS_GetVersion() <= FS_MAX_LIBRARY_VERSION && library->FS_SetLog != nullptr) {
        OSL_Log(KSX_PRINT, "setting lib %d log level to %d\n", i, level);
        library->FS_SetLog(kestrix::LogLevelPointer(), nullptr);
      }
    }
  }

  return kestrix::AsHeader(kestrix::NewReply<SendStringCmdReply>(
      request, SP_SENDSTRINGCMD_REPLY_SIZE, nullptr, SP_RESULT_OK));
}

}  // extern "C"
