// testfs: a scriptable filesystem plug-in for the tests and the demo. Builds
// (CMakeLists.txt) differ in the version reported, FS_Init's result, whether
// FS_UnlockMap, FS_GetMaxLeases and FS_SetLog exist, and a call back into
// the daemon from FS_Init.
//
// With KESTRIX_TESTFS_DIR set, an instance named by its file (liba.so) rereads
// <dir>/liba.so.conf on every call and appends "FS_Name key=value ..." to
// <dir>/liba.so.calls (cookies as text up to their first 0). Conf lines, a
// later one of the same key winning:
//   version N | maxlease.read N | misscookie TEXT (the volume cookie of a miss)
//   result FS_Name N...   the k-th served call's result; later ones the last
//   miss FS_GetVolCookie|FS_GetCookies N   a miss's result (default -380)
//   volume MOUNT VOLCOOKIE | file PATH VOLCOOKIE|- FILECOOKIE   what is served
//   vol.vendorStatus|nDisks N, vol.error TEXT (with a vendorStatus)
//   map.msgLen|nExtents|extentType N
//   delay.unlock MS   FS_UnlockMap sleeps this long before it returns
//   delay.map MS      FS_GetLockedMap sleeps this long before it returns
// Disk i (from 0): DiskID bytes 0x10 (i+1) + j, IDoffset 1000 (i+1),
// BlockOffset 2000 (i+1), nBlocks 100000 (i+1). Extent i: {1000 (i+1), 8 (i+1)}
// (type 0, the default) or {65536 i, 1048576 (i+1), 65536, i, 1} (type 1),
// of a file of 1 MiB. Only what fits the room is written; msgLen counts it unless set.
#include <dlfcn.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
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
using std::to_string;

// The conf: each line's remaining words by its first word (or first two, for
// result, miss, volume and file lines, whose second word is a name).
struct Conf {
  std::map<std::string, Words> lines;

  const Words* Find(const std::string& key) const {
    auto it = lines.find(key);
    return it == lines.end() || it->second.empty() ? nullptr : &it->second;
  }
  std::string Text(const std::string& key) const { return Find(key) ? Find(key)->back() : ""; }
  long long Num(const std::string& key, long long dflt) const {
    return Find(key) ? atoll(Text(key).c_str()) : dflt;
  }
};

std::string SteeringPath(const char* suffix) {
  const char* dir = getenv("KESTRIX_TESTFS_DIR");
  Dl_info info;
  if (dir == nullptr || *dir == '\0' || dladdr(reinterpret_cast<void*>(&SteeringPath), &info) == 0)
    return "";
  return std::string(dir) + "/" +
         (strrchr(info.dli_fname, '/') ? strrchr(info.dli_fname, '/') + 1 : info.dli_fname) +
         suffix;
}

Conf ReadConf() {
  Conf conf;
  std::ifstream in(SteeringPath(".conf"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    Words w{std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>()};
    if (w.empty() || w[0][0] == '#') continue;
    const size_t named =
        (w[0] == "result" || w[0] == "miss" || w[0] == "volume" || w[0] == "file") && w.size() > 1;
    conf.lines[named ? w[0] + " " + w[1] : w[0]] = Words(w.begin() + 1 + named, w.end());
  }
  return conf;
}

// Appends one call record in one write, so that concurrent calls never mix.
void Record(const std::string& line) {
  const std::string path = SteeringPath(".calls"), text = line + "\n";
  const int fd = path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0) return;
  // A lost record fails the test.
  [[maybe_unused]] ssize_t written = write(fd, text.data(), text.size());
  close(fd);
}

// Records a call with its result, and returns the result.
FSLONG Recorded(const std::string& call, FSLONG result) {
  Record(call + " result=" + to_string(result));
  return result;
}

std::string Cookie(const uint8_t* cookie) {
  return cookie == nullptr ? "null"
                           : std::string(reinterpret_cast<const char*>(cookie),
                                         strnlen(reinterpret_cast<const char*>(cookie), 32));
}

std::string Cookies(const uint8_t* volume, const uint8_t* file) {
  return " vol=" + Cookie(volume) + " file=" + Cookie(file);
}

void StoreCookie(const std::string& text, uint8_t* out) {
  if (out == nullptr) return;
  memset(out, 0, FS_COOKIE_SIZE);
  memcpy(out, text.data(), std::min<size_t>(text.size(), FS_COOKIE_SIZE));
}

std::string Utf8(const FSUNI* s) {
  char text[4096] = "";
  return s == nullptr ? "" : fsuni2mb(text, s, sizeof text);
}

// The result of the k-th served call of an entry point.
FSLONG Result(const Conf& conf, const std::string& entry) {
  static std::mutex lock;
  static std::map<std::string, size_t> served;
  std::lock_guard<std::mutex> hold(lock);
  const size_t k = served[entry]++;
  const Words* values = conf.Find("result " + entry);
  return values == nullptr ? 0 : atoi((*values)[std::min(k, values->size() - 1)].c_str());
}

// Structures are built in locals and copied, so any buffer alignment works.
void WriteVolInfo(const Conf& conf, const uint8_t* cookie, uint8_t* out, size_t room) {
  if (out == nullptr || room < VOLINFO_FIXED_SIZE) return;
  VolInfo v{};
  v.vendorStatus = static_cast<FSLONG>(conf.Num("vol.vendorStatus", 0));
  v.nDisks = static_cast<FSULONG>(conf.Num("vol.nDisks", 1));
  size_t end = VOLINFO_FIXED_SIZE;
  if (v.vendorStatus != 0 && end + 2 <= room)  // the error text with its zero unit, cut to the room
    mb2fsuni(reinterpret_cast<FSUNI*>(out + end), conf.Text("vol.error").c_str(),
             static_cast<int32_t>((room - end) / 2));
  for (FSULONG i = 0; v.vendorStatus == 0 && i < v.nDisks && end + FSDISK_SIZE <= room;
       ++i, end += FSDISK_SIZE) {
    FSDisk d{};
    for (int j = 0; j < FSDISK_ID_SIZE; ++j) d.DiskID[j] = static_cast<uint8_t>(0x10 * (i + 1) + j);
    d.IDlength = FSDISK_ID_SIZE;
    d.IDoffset = 1000LL * (i + 1);
    d.BlockOffset = 2000LL * (i + 1);
    d.nBlocks = 100000LL * (i + 1);
    memcpy(out + end, &d, sizeof d);
  }
  v.msgLen = static_cast<FSLONG>(end);
  v.FStype = 1;
  v.BlockSize = 4096;
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
    const CompactExtent c{1000 * (i + 1), 8 * (i + 1)};
    const VerboseExtent v{65536 * i, 1048576 * (i + 1), 65536, static_cast<FSULONG>(i), 1};
    memcpy(out + end, m.extentType == FS_EXTENT_COMPACT ? static_cast<const void*>(&c) : &v, size);
  }
  m.fileSize = m.allocation = 1048576;
  m.msgLen = static_cast<FSLONG>(conf.Num("map.msgLen", static_cast<long long>(end)));
  m.fileOffset = start;
  m.fileBytes = length >= 0 ? length : m.fileSize - start;
  memcpy(out, &m, sizeof m);
}

// A served mount point or path stores its cookies; any other the miss cookie.
FSLONG Lookup(const Conf& conf, const std::string& entry, const Words* served, uint8_t* volumeOut,
              uint8_t* fileOut) {
  if (served == nullptr || served->size() != (fileOut ? 2 : 1)) {
    if (conf.Find("misscookie")) StoreCookie(conf.Text("misscookie"), volumeOut);
    return static_cast<FSLONG>(conf.Num("miss " + entry, -380));
  }
  if (served->at(0) != "-") StoreCookie(served->at(0), volumeOut);
  if (fileOut != nullptr) StoreCookie(served->at(1), fileOut);
  return Result(conf, entry);
}

}  // namespace

TESTFS_EXPORT FSLONG FS_GetVersion(void) {
  return Recorded("FS_GetVersion", static_cast<FSLONG>(ReadConf().Num("version", TESTFS_VERSION)));
}

TESTFS_EXPORT FSLONG FS_Init(void) {
#ifdef TESTFS_CALLBACK
  // Binds to the daemon's allocator and logger at load time.
  void* block = ksxmem_memalign(-8, 64, "tfsc");
  if (block != nullptr) ksxmem_free(block);
  OSL_Log(KSX_PRINT, "testfs callback: allocated %d bytes\n", block != nullptr ? 64 : 0);
#endif
  return Recorded("FS_Init", TESTFS_INIT_RESULT);
}

#ifndef TESTFS_NO_OPTIONAL
TESTFS_EXPORT FSLONG FS_SetLog(int* levelPointer, void* reserved) {
  const FSLONG result = Result(ReadConf(), "FS_SetLog");
  // A LOG command on another thread may store a new level meanwhile.
  const int level = levelPointer ? __atomic_load_n(levelPointer, __ATOMIC_RELAXED) : 0;
  return Recorded("FS_SetLog level=" + (levelPointer ? to_string(level) : "null") +
                  " reserved=" + (reserved ? "set" : "null"), result);
}

TESTFS_EXPORT FSLONG FS_GetMaxLeases(const uint8_t* volumeCookie, FSLONG* readMaxSeconds, FSLONG*) {
  const Conf conf = ReadConf();
  const FSLONG result = Result(conf, "FS_GetMaxLeases");
  if (conf.Find("maxlease.read"))
    *readMaxSeconds = static_cast<FSLONG>(conf.Num("maxlease.read", 0));
  return Recorded("FS_GetMaxLeases vol=" + Cookie(volumeCookie), result);
}
#endif

TESTFS_EXPORT FSLONG FS_GetVolCookie(const FSUNI* mountPoint, uint8_t* volumeCookieOut) {
  const Conf conf = ReadConf();
  const std::string mount = Utf8(mountPoint);
  return Recorded(
      "FS_GetVolCookie mount=" + mount,
      Lookup(conf, "FS_GetVolCookie", conf.Find("volume " + mount), volumeCookieOut, nullptr));
}

TESTFS_EXPORT FSLONG FS_GetVolByCookie(const uint8_t* volumeCookie, struct VolInfo* info,
                                       FSULONG* room) {
  const Conf conf = ReadConf();
  const FSULONG bytes = room != nullptr ? *room : 0;
  const FSLONG result = Result(conf, "FS_GetVolByCookie");
  WriteVolInfo(conf, volumeCookie, reinterpret_cast<uint8_t*>(info), bytes);
  return Recorded("FS_GetVolByCookie vol=" + Cookie(volumeCookie) + " room=" + to_string(bytes),
                  result);
}

TESTFS_EXPORT FSLONG FS_GetCookies(const FSUNI* path, uint8_t* volumeCookieOut,
                                   uint8_t* fileCookieOut) {
  const Conf conf = ReadConf();
  const std::string full = Utf8(path);
  return Recorded(
      "FS_GetCookies path=" + full,
      Lookup(conf, "FS_GetCookies", conf.Find("file " + full), volumeCookieOut, fileCookieOut));
}

TESTFS_EXPORT FSLONG FS_GetLockedMap(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FS64LONG start, FS64LONG length, FSULONG flags,
                                     struct FSMapInfo* map, FSULONG* room) {
  const Conf conf = ReadConf();
  usleep(static_cast<useconds_t>(conf.Num("delay.map", 0) * 1000));
  const FSULONG bytes = room != nullptr ? *room : 0;
  const FSLONG result = Result(conf, "FS_GetLockedMap");
  WriteMap(conf, start, length, reinterpret_cast<uint8_t*>(map), bytes);
  return Recorded("FS_GetLockedMap" + Cookies(volumeCookie, fileCookie) +
                      " start=" + to_string(start) + " length=" + to_string(length) +
                      " flags=" + to_string(flags) + " room=" + to_string(bytes),
                  result);
}

#ifndef TESTFS_NO_UNLOCK
TESTFS_EXPORT FSLONG FS_UnlockMap(const uint8_t* volumeCookie, const uint8_t* fileCookie) {
  usleep(static_cast<useconds_t>(ReadConf().Num("delay.unlock", 0) * 1000));
  return Recorded("FS_UnlockMap" + Cookies(volumeCookie, fileCookie),
                  Result(ReadConf(), "FS_UnlockMap"));
}
#endif

TESTFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                     FS64LONG allOnes) {
  return Recorded("FS_SetFileSizes" + Cookies(volumeCookie, fileCookie) +
                      " zero=" + to_string(zero) + " size=" + to_string(fileSize) +
                      " alloc=" + to_string(allocSize) + " last=" + to_string(allOnes),
                  Result(ReadConf(), "FS_SetFileSizes"));
}
