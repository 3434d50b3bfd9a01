// SendStringCmd handler: free-form text commands from a client. Only "LOG"
// does something (a new log level and destination, for the daemon and for
// each library that has FS_SetLog); every command, known or not, gets 0.
// A file destination is checked against KESTRIX_LOG_DIR (utils/log_dir.h)
// and then logged to by its resolved name.
#include "sp/sendstringcmd.h"

#include <string>

#include "sp/fsmdcsp.h"
#include "sp/handler_common.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "utils/config.h"
#include "utils/dgram.h"
#include "utils/log.h"
#include "utils/log_dir.h"
#include "utils/token.h"
#include "utils/utils.h"

static_assert(kestrix::kReadableInPlace<SendStringCmdMsg>);

namespace {

constexpr int kCommandBytes = 1024;

}  // namespace

extern "C" {

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
      destination = kestrix::ConfinedLogFile(destination, confined);
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
