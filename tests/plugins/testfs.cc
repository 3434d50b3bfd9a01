// testfs: a scriptable filesystem plug-in for the tests and the demo.
//
// One source, several builds (CMakeLists.txt): the version it reports,
// whether FS_UnlockMap, FS_GetMaxLeases and FS_SetLog exist, FS_Init's
// result, and whether FS_Init calls back into the daemon.
//
// KESTRIX_TESTFS_DIR names a steering directory (unset: defaults, nothing
// recorded). An instance is named by its file's basename (liba.so), so one
// build copied under two names gives two instances. Every call rereads
// <dir>/<name>.conf and appends "FS_Name key=value ..." to <dir>/<name>.calls
// (cookies as their bytes up to the first 0).
//
// Conf lines (a later line of the same key wins; numbers in decimal):
//   version N | init N                the version reported, FS_Init's result
//   result FS_Name N...               the k-th served call gets the k-th value,
//                                     later ones the last (default 0)
//   miss FS_GetVolCookie|FS_GetCookies N   result when not served (-380)
//   misscookie TEXT                   volume cookie written when not served
//   volume MOUNT VOLCOOKIE            FS_GetVolCookie serves MOUNT
//   file PATH VOLCOOKIE FILECOOKIE    FS_GetCookies serves PATH ("-": no volume)
//   vol.F N  (F: vendorStatus FStype nDisks BlockSize)   vol.error TEXT
//   map.F N  (F: fileSize allocation msgLen nExtents extentType)
//   maxlease.read N | maxlease.write N     FS_GetMaxLeases's maxima
// Volumes: FStype 1, BlockSize 4096, one disk; disk i (from 0) has DiskID
// bytes 0x10 (i+1) + j, IDlength 16, IDoffset 1000 (i+1), BlockOffset
// 2000 (i+1), nBlocks 100000 (i+1); with a vendorStatus, the error text
// instead. Maps: 1 MiB file, one extent of type 0; extent i is
// {1000 (i+1), 8 (i+1)} (type 0) or {65536 i, 1048576 (i+1), 65536, i, 1}
// (type 1). Only what fits the room is written; msgLen counts it unless set.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fslibrary.h"
#include "fsmdc.h"
#include "utils/utils.h"

#ifdef TESTFS_CALLBACK
#include "utils/ksxmem.h"
#include "utils/log.h"
#endif

#ifndef TESTFS_VERSION
#define TESTFS_VERSION 230
#endif
#ifndef TESTFS_INIT_RESULT
#define TESTFS_INIT_RESULT 0
#endif

#define TESTFS_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using Words = std::vector<std::string>;

// The conf: each line's words by their first word (or first two, for
// result, miss, volume and file lines, whose second word is a name).
struct Conf {
  std::map<std::string, Words> lines;

  const Words* Find(const std::string& key) const {
    auto it = lines.find(key);
    return it == lines.end() ? nullptr : &it->second;
  }
  long long Num(const std::string& key, long long dflt) const {
    const Words* w = Find(key);
    return w != nullptr && !w->empty() ? atoll(w->back().c_str()) : dflt;
  }
  std::string Text(const std::string& key) const {
    const Words* w = Find(key);
    return w != nullptr && !w->empty() ? w->back() : std::string();
  }
};

std::string Name() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&Name), &info) == 0 || info.dli_fname == nullptr)
    return "testfs";
  return strrchr(info.dli_fname, '/') ? strrchr(info.dli_fname, '/') + 1 : info.dli_fname;
}

std::string SteeringPath(const char* suffix) {
  const char* dir = getenv("KESTRIX_TESTFS_DIR");
  return dir == nullptr || *dir == '\0' ? std::string() : std::string(dir) + "/" + Name() + suffix;
}

Conf ReadConf() {
  Conf conf;
  std::ifstream in(SteeringPath(".conf"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    Words w;
    for (std::string word; fields >> word;) w.push_back(word);
    if (w.empty() || w[0][0] == '#') continue;
    size_t named = w[0] == "result" || w[0] == "miss" || w[0] == "volume" || w[0] == "file";
    std::string key = w[0];
    for (size_t i = 1; i <= named && i < w.size(); ++i) key += " " + w[i];
    conf.lines[key] = Words(w.begin() + std::min(w.size(), 1 + named), w.end());
  }
  return conf;
}

// Appends one call record; one write per line, so concurrent calls never mix.
void Record(const std::string& line) {
  std::string path = SteeringPath(".calls");
  if (path.empty()) return;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0) return;
  std::string text = line + "\n";
  if (write(fd, text.data(), text.size()) < 0) {
  }
  close(fd);
}

std::string Cookie(const uint8_t* cookie) {
  return cookie == nullptr ? "null" : std::string(reinterpret_cast<const char*>(cookie),
                                                  strnlen(reinterpret_cast<const char*>(cookie), 32));
}

void StoreCookie(const std::string& text, uint8_t* out) {
  if (out == nullptr) return;
  memset(out, 0, FS_COOKIE_SIZE);
  memcpy(out, text.data(), std::min<size_t>(text.size(), FS_COOKIE_SIZE));
}

std::string Utf8(const FSUNI* s) {
  char text[4096] = "";
  return s == nullptr ? std::string() : fsuni2mb(text, s, sizeof text);
}

std::string N(long long v) { return std::to_string(v); }

// The result of the k-th served call of an entry point; calls counts them.
FSLONG Result(const Conf& conf, const char* entry, std::atomic<int>& calls) {
  const Words* values = conf.Find(std::string("result ") + entry);
  size_t k = static_cast<size_t>(calls++);
  if (values == nullptr || values->empty()) return 0;
  return atoi((*values)[std::min(k, values->size() - 1)].c_str());
}

// Writes text with its zero unit from offset on, cut to the room.
void PutText(uint8_t* base, size_t offset, size_t room, const std::string& text) {
  if (offset + 2 <= room) mb2fsuni(reinterpret_cast<FSUNI*>(base + offset), text.c_str(),
                                   static_cast<int32_t>((room - offset) / 2));
}

// Structures are built in locals and copied, so any buffer alignment works.
void WriteVolInfo(const Conf& conf, const uint8_t* cookie, uint8_t* out, size_t room) {
  if (out == nullptr || room < VOLINFO_FIXED_SIZE) return;
  VolInfo v{};
  v.vendorStatus = static_cast<FSLONG>(conf.Num("vol.vendorStatus", 0));
  v.nDisks = static_cast<FSULONG>(conf.Num("vol.nDisks", 1));
  size_t end = VOLINFO_FIXED_SIZE;
  if (v.vendorStatus != 0) PutText(out, end, room, conf.Text("vol.error"));
  for (FSULONG i = 0; v.vendorStatus == 0 && i < v.nDisks && end + FSDISK_SIZE <= room; ++i) {
    FSDisk d{};
    for (int j = 0; j < FSDISK_ID_SIZE; ++j) d.DiskID[j] = static_cast<uint8_t>(0x10 * (i + 1) + j);
    d.IDlength = FSDISK_ID_SIZE;
    d.IDoffset = 1000LL * (i + 1);
    d.BlockOffset = 2000LL * (i + 1);
    d.nBlocks = 100000LL * (i + 1);
    memcpy(out + end, &d, sizeof d);
    end += FSDISK_SIZE;
  }
  v.msgLen = static_cast<FSLONG>(end);
  v.FStype = static_cast<FSLONG>(conf.Num("vol.FStype", 1));
  v.BlockSize = static_cast<FSLONG>(conf.Num("vol.BlockSize", 4096));
  if (cookie != nullptr) memcpy(v.Cookie, cookie, FS_COOKIE_SIZE);
  memcpy(out, &v, sizeof v);
}

void WriteMap(const Conf& conf, FS64LONG start, FS64LONG length, uint8_t* out, size_t room) {
  if (out == nullptr || room < FSMAPINFO_FIXED_SIZE) return;
  FSMapInfo m{};
  m.extentType = static_cast<FSULONG>(conf.Num("map.extentType", FS_EXTENT_COMPACT));
  m.nExtents = static_cast<FSLONG>(conf.Num("map.nExtents", 1));
  const size_t size = m.extentType == FS_EXTENT_COMPACT ? COMPACT_EXTENT_SIZE
                      : m.extentType == FS_EXTENT_VERBOSE ? VERBOSE_EXTENT_SIZE : 0;
  size_t end = FSMAPINFO_FIXED_SIZE;
  for (long long i = 0; size > 0 && i < m.nExtents && end + size <= room; ++i, end += size) {
    if (m.extentType == FS_EXTENT_COMPACT) {
      CompactExtent e{1000 * (i + 1), 8 * (i + 1)};
      memcpy(out + end, &e, sizeof e);
    } else {
      VerboseExtent e{65536 * i, 1048576 * (i + 1), 65536, static_cast<FSULONG>(i), 1};
      memcpy(out + end, &e, sizeof e);
    }
  }
  m.fileSize = conf.Num("map.fileSize", 1048576);
  m.allocation = conf.Num("map.allocation", 1048576);
  m.msgLen = static_cast<FSLONG>(conf.Num("map.msgLen", static_cast<long long>(end)));
  m.fileOffset = start;
  m.fileBytes = length >= 0 ? length : m.fileSize - start;
  memcpy(out, &m, sizeof m);
}

std::atomic<int> g_SetLog, g_GetVolCookie, g_GetVolByCookie, g_GetCookies, g_GetLockedMap,
    g_UnlockMap, g_SetFileSizes, g_GetMaxLeases;

}  // namespace

TESTFS_EXPORT FSLONG FS_GetVersion(void) {
  FSLONG version = static_cast<FSLONG>(ReadConf().Num("version", TESTFS_VERSION));
  Record("FS_GetVersion result=" + N(version));
  return version;
}

TESTFS_EXPORT FSLONG FS_Init(void) {
  FSLONG result = static_cast<FSLONG>(ReadConf().Num("init", TESTFS_INIT_RESULT));
#ifdef TESTFS_CALLBACK
  // Binds to the daemon's allocator and logger at load time.
  void* block = ksxmem_memalign(-8, 64, "tfsc");
  if (block != nullptr) ksxmem_free(block);
  OSL_Log(KSX_PRINT, "testfs callback: allocated %d bytes\n", block != nullptr ? 64 : 0);
#endif
  Record("FS_Init result=" + N(result));
  return result;
}

#ifndef TESTFS_NO_OPTIONAL
TESTFS_EXPORT FSLONG FS_SetLog(int* levelPointer, void* reserved) {
  FSLONG result = Result(ReadConf(), "FS_SetLog", g_SetLog);
  // A LOG command on another thread may store a new level meanwhile.
  const int level = levelPointer ? __atomic_load_n(levelPointer, __ATOMIC_RELAXED) : 0;
  Record("FS_SetLog level=" + (levelPointer ? N(level) : "null") +
         " reserved=" + (reserved ? "set" : "null") + " result=" + N(result));
  return result;
}
#endif

// Served mount points and paths write their cookies; others the miss cookie.
TESTFS_EXPORT FSLONG FS_GetVolCookie(const FSUNI* mountPoint, uint8_t* volumeCookieOut) {
  Conf conf = ReadConf();
  std::string mount = Utf8(mountPoint);
  const Words* served = conf.Find("volume " + mount);
  FSLONG result;
  if (served != nullptr && !served->empty()) {
    result = Result(conf, "FS_GetVolCookie", g_GetVolCookie);
    StoreCookie(served->at(0), volumeCookieOut);
  } else {
    result = static_cast<FSLONG>(conf.Num("miss FS_GetVolCookie", -380));
    if (conf.Find("misscookie")) StoreCookie(conf.Text("misscookie"), volumeCookieOut);
  }
  Record("FS_GetVolCookie mount=" + mount + " result=" + N(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetVolByCookie(const uint8_t* volumeCookie, struct VolInfo* info,
                                       FSULONG* room) {
  Conf conf = ReadConf();
  FSULONG bytes = room != nullptr ? *room : 0;
  FSLONG result = Result(conf, "FS_GetVolByCookie", g_GetVolByCookie);
  WriteVolInfo(conf, volumeCookie, reinterpret_cast<uint8_t*>(info), bytes);
  Record("FS_GetVolByCookie vol=" + Cookie(volumeCookie) + " room=" + N(bytes) +
         " result=" + N(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetCookies(const FSUNI* path, uint8_t* volumeCookieOut,
                                   uint8_t* fileCookieOut) {
  Conf conf = ReadConf();
  std::string full = Utf8(path);
  const Words* served = conf.Find("file " + full);
  FSLONG result;
  if (served != nullptr && served->size() == 2) {
    result = Result(conf, "FS_GetCookies", g_GetCookies);
    if (served->at(0) != "-") StoreCookie(served->at(0), volumeCookieOut);
    StoreCookie(served->at(1), fileCookieOut);
  } else {
    result = static_cast<FSLONG>(conf.Num("miss FS_GetCookies", -380));
    if (conf.Find("misscookie")) StoreCookie(conf.Text("misscookie"), volumeCookieOut);
  }
  Record("FS_GetCookies path=" + full + " result=" + N(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetLockedMap(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FS64LONG start, FS64LONG length, FSULONG flags,
                                     struct FSMapInfo* map, FSULONG* room) {
  Conf conf = ReadConf();
  FSULONG bytes = room != nullptr ? *room : 0;
  FSLONG result = Result(conf, "FS_GetLockedMap", g_GetLockedMap);
  WriteMap(conf, start, length, reinterpret_cast<uint8_t*>(map), bytes);
  Record("FS_GetLockedMap vol=" + Cookie(volumeCookie) + " file=" + Cookie(fileCookie) +
         " start=" + N(start) + " length=" + N(length) + " flags=" + N(flags) +
         " room=" + N(bytes) + " result=" + N(result));
  return result;
}

#ifndef TESTFS_NO_UNLOCK
TESTFS_EXPORT FSLONG FS_UnlockMap(const uint8_t* volumeCookie, const uint8_t* fileCookie) {
  FSLONG result = Result(ReadConf(), "FS_UnlockMap", g_UnlockMap);
  Record("FS_UnlockMap vol=" + Cookie(volumeCookie) + " file=" + Cookie(fileCookie) +
         " result=" + N(result));
  return result;
}
#endif

TESTFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                     FS64LONG allOnes) {
  FSLONG result = Result(ReadConf(), "FS_SetFileSizes", g_SetFileSizes);
  Record("FS_SetFileSizes vol=" + Cookie(volumeCookie) + " file=" + Cookie(fileCookie) +
         " zero=" + N(zero) + " size=" + N(fileSize) + " alloc=" + N(allocSize) +
         " last=" + N(allOnes) + " result=" + N(result));
  return result;
}

#ifndef TESTFS_NO_OPTIONAL
TESTFS_EXPORT FSLONG FS_GetMaxLeases(const uint8_t* volumeCookie, FSLONG* readMaxSeconds,
                                     FSLONG* writeMaxSeconds) {
  Conf conf = ReadConf();
  FSLONG result = Result(conf, "FS_GetMaxLeases", g_GetMaxLeases);
  if (conf.Find("maxlease.read")) *readMaxSeconds = static_cast<FSLONG>(conf.Num("maxlease.read", 0));
  if (conf.Find("maxlease.write"))
    *writeMaxSeconds = static_cast<FSLONG>(conf.Num("maxlease.write", 0));
  Record("FS_GetMaxLeases vol=" + Cookie(volumeCookie) + " result=" + N(result));
  return result;
}
#endif
