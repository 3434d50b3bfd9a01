// Share-name mapping: client path names, smb.conf sections and "[homes]"
// entries of the password file, turned into local mount-point paths.
//
// Every call reads the files again (configuration changes apply to the next
// request), keeps its buffers on its own stack and closes what it opens.
#include "utils/osl_share.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include "utils/log.h"
#include "utils/token.h"
#include "utils/utils.h"

namespace kestrix {
namespace {

constexpr int kNameSize = 256;     // share name and path found
constexpr int kFileNameSize = 1024;
constexpr int kLineSize = 1024;    // a line read: at most 1023 characters
constexpr int kPasswdFieldSize = 128;

constexpr const char kDefaultSmbConfList[] =
    "/usr/local/samba/lib/smb.conf:/opt/samba/lib/smb.conf:/opt/Kestrix/smb.conf:"
    "/etc/sfw/smb.conf";
constexpr const char kDefaultPasswdPath[] = "/etc/passwd";

std::atomic<const char*> passwd_path{nullptr};

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// The next line of f, at most 1023 characters of it, without its final
// character (the newline when the whole line fitted). False at end of file.
bool ReadLine(FILE* f, char (&line)[kLineSize]) {
  if (fgets(line, kLineSize, f) == nullptr) return false;
  size_t n = strlen(line);
  if (n > 0) line[n - 1] = '\0';
  return true;
}

bool FileExists(const char* name) {
  struct stat st;
  return stat(name, &st) == 0;
}

// Takes the path from a "path =" line: from its first '/' to the next space.
// Returns false (logged) when there is none or it does not fit in path.
bool TakePath(const char* line, const char* fileName, const char* shareName, char* path) {
  const char* start = strchr(line, '/');
  // A path line without '/' has nothing usable: the share is not found here.
  if (start == nullptr) {
    OSL_Log(KSX_ERROR,
            "parseSmbConfFile: The path line for [%s] in [%s] holds no absolute path.\n",
            LogSafe(shareName).c_str(), fileName);
    return false;
  }
  const char* end = strchr(start, ' ');
  size_t len = end ? static_cast<size_t>(end - start) : strlen(start);
  // Cutting a long path could name some other directory: refuse it instead.
  if (len > kNameSize - 1) {
    OSL_Log(KSX_ERROR,
            "parseSmbConfFile: The path for [%s] in [%s] is longer than %d bytes.\n",
            LogSafe(shareName).c_str(), fileName, kNameSize - 1);
    return false;
  }
  memcpy(path, start, len);
  path[len] = '\0';
  return true;
}

// For "[homes]": the share name minus its first character is a login name,
// and that user's home directory from the password file is the answer.
int32_t LookUpHome(const char* shareName, char* path) {
  const char* passwd = passwd_path.load();
  File f(fopen(passwd ? passwd : kDefaultPasswdPath, "r"));
  if (!f) return -1;
  // An empty share name has no second character; compare with "" instead.
  const char* refName = shareName[0] != '\0' ? shareName + 1 : shareName;
  const LogSafe safeRefName(refName);
  char line[kLineSize];
  char userName[kPasswdFieldSize];
  char homeDir[kPasswdFieldSize];
  while (ReadLine(f.get(), line)) {
    if (token_getNumTokens(line, ':') <= 1) continue;
    token_getToken(line, ':', 0, userName, sizeof userName);
    OSL_Log(KSX_DEBUG1, "username is [%s] volName is [%s]\n", userName, safeRefName.c_str());
    if (strcmp(refName, userName) == 0) {
      token_getToken(line, ':', 5, homeDir, sizeof homeDir);
      memcpy(path, homeDir, strlen(homeDir) + 1);
      OSL_Log(KSX_DEBUG1, "refName is [%s] homeDir is [%s]\n", path, homeDir);
      return 0;
    }
  }
  return -1;
}

// Converts text into the caller's FSUNI buffer in full, or logs and fails
// without writing it: a cut mount point would name another directory.
int32_t StoreMountPoint(const char* text, FSUNI* out, int32_t capacityUnits) {
  FSUNI units[kNameSize];  // text is at most 255 bytes, so at most 255 units
  int32_t n = utf8array_to_utf16asciz(text, static_cast<int32_t>(strlen(text)), units,
                                      kNameSize);
  if (n < 0) {
    OSL_Log(KSX_ERROR, "OSL_ShareNameToMountPoint: The mount point [%s] is not valid UTF-8.\n",
            LogSafe(text).c_str());
    return 3;
  }
  // Capacity too small: result 3, never a truncated mount point.
  if (capacityUnits <= n) {
    OSL_Log(KSX_ERROR,
            "OSL_ShareNameToMountPoint: The mount point [%s] does not fit in %d units.\n",
            LogSafe(text).c_str(), capacityUnits);
    return 3;
  }
  memcpy(out, units, static_cast<size_t>(n) * sizeof(FSUNI));
  out[n] = 0;
  return 0;
}

}  // namespace

void SetPasswdPathForTesting(const char* path) { passwd_path.store(path); }

}  // namespace kestrix

using kestrix::File;

extern "C" {

void OSL_TransPath(FSUNI* path) {
  for (; *path != 0; ++path) {
    if (*path == 0x005C) *path = 0x002F;
  }
}

int32_t OSL_ShareNameToMountPoint(const FSUNI* shareName, FSUNI* mountPoint,
                                  int32_t capacityUnits) {
  // A name longer than the buffer is cut to 255 bytes, as the converter does.
  char name[kestrix::kNameSize];
  char path[kestrix::kNameSize];
  fsuni2mb(name, shareName, sizeof name);
  path[0] = '\0';

  if (name[0] == '/') return kestrix::StoreMountPoint(name, mountPoint, capacityUnits);

  if (sambaCheck(name, path) == -1) {
    OSL_Log(KSX_ERROR, "FTX1201W OSL_ShareNameToMountPoint failed name is : %s\n",
            kestrix::LogSafe(name).c_str());
    return 3;
  }
  return kestrix::StoreMountPoint(path[0] != '\0' ? path : name, mountPoint, capacityUnits);
}

int32_t sambaCheck(const char* shareName, char* path) {
  int32_t result = -1;
  char fileName[kestrix::kFileNameSize];
  const char* env = getenv("KESTRIX_SMBPATH");

  if (env != nullptr) {
    OSL_Log(KSX_DEBUG1, "Using env var KESTRIX_SMBPATH [%s] to find samba share path.\n", env);
    snprintf(fileName, sizeof fileName, "%s", env);
    if (!kestrix::FileExists(fileName)) {
      OSL_Log(KSX_ERROR,
              "sambaCheck: Could not find [%s] indicated by env var KESTRIX_SMBPATH. The file "
              "does not exist.\n",
              fileName);
      return -1;
    }
    result = parseSmbConfFile(fileName, shareName, path);
    if (result == -1) {
      OSL_Log(KSX_ERROR, "sambaCheck: Could not find a samba share for [%s] in [%s].\n",
              kestrix::LogSafe(shareName).c_str(), fileName);
    }
    return result;
  }

  const int32_t count = token_getNumTokens(kestrix::kDefaultSmbConfList, ':');
  for (int32_t i = 0; i < count && result != 0; ++i) {
    token_getToken(kestrix::kDefaultSmbConfList, ':', i, fileName, sizeof fileName);
    if (kestrix::FileExists(fileName)) result = parseSmbConfFile(fileName, shareName, path);
  }
  if (result == -1) {
    OSL_Log(KSX_ERROR,
            "FTX1519I Could not find the smb.conf file. \n If the share is a samba share set "
            "KESTRIX_SMBPATH to the full path where the smb.conf file is located.  \n(ex: "
            "KESTRIX_SMBPATH set to \"/usr/local/samba/lib/smb.conf\")\n Otherwise disreguard "
            "this warning.\n");
  }
  return result;
}

int32_t parseSmbConfFile(const char* fileName, const char* shareName, char* path) {
  int32_t result = -1;
  bool homes = false;
  const kestrix::LogSafe safeShareName(shareName);
  OSL_Log(KSX_DEBUG1, "parseSmbConfFile: Opening [%s] looking for [%s]\n", fileName,
          safeShareName.c_str());

  {
    File f(fopen(fileName, "r"));
    if (!f) {
      OSL_Log(KSX_ERROR, "FTX1199I Could not find samba share name failed to open %s file\n",
              fileName);
      return -1;
    }
    char header[kestrix::kLineSize];
    snprintf(header, sizeof header, "[%s]", shareName);
    const kestrix::LogSafe safeHeader(header);
    char line[kestrix::kLineSize];
    while (kestrix::ReadLine(f.get(), line)) {
      OSL_Log(KSX_DEBUG1, "debug parseSmbConfFile: smbName is %s volName is %s\n",
              safeHeader.c_str(), safeShareName.c_str());
      if (strcmp(line, "[homes]") == 0) homes = true;
      if (strcmp(line, header) != 0) continue;

      // The section's path line may come after other sections or be commented.
      bool found = false;
      while (kestrix::ReadLine(f.get(), line)) {
        if (strstr(line, "path =") != nullptr) {
          found = true;
          break;
        }
      }
      if (found && kestrix::TakePath(line, fileName, shareName, path)) {
        OSL_Log(KSX_DEBUG1, "parseSmbConfFile: Found [%s]. The path name is [%s]\n",
                safeShareName.c_str(), path);
        result = 0;
      }
      break;
    }
  }  // the configuration file is closed here

  if (result == 0 || !homes) return result;
  return kestrix::LookUpHome(shareName, path);
}

}  // extern "C"
