// testfs: a scriptable filesystem plug-in for the tests.
//
// One source, several builds (see CMakeLists.txt): the version it reports,
// whether FS_UnlockMap, FS_GetMaxLeases and FS_SetLog exist, FS_Init's
// default result, and whether FS_Init calls back into the daemon.
//
// Steering. KESTRIX_TESTFS_DIR names a directory; unset, the plug-in uses
// its defaults and records nothing. An instance is named by the basename of
// its own file (liba.so), so one build copied under two names gives two
// independent instances. On every call the instance rereads
// <dir>/<name>.conf (absent = defaults) and appends one line to
// <dir>/<name>.calls (opened, appended to and closed per line).
//
// Conf: one setting per line, fields separated by blanks, '#' starts a
// comment line. Texts (paths, cookies, error texts) may hold %XX escapes
// (%20 for a blank, %25 for '%'). Numbers are decimal (0x for hex allowed).
//   version N                   FS_GetVersion's value (default: the build's)
//   init N                      FS_Init's result (default 0; initfail: 1)
//   result FS_Name N [N...]     result of that entry point when it serves the
//                               call; the k-th call gets the k-th value, later
//                               calls the last (default 0)
//   miss FS_GetVolCookie N      result for a mount point not served (-380)
//   miss FS_GetCookies N        result for a path not served (-380)
//   misscookie TEXT             volume cookie FS_GetVolCookie and FS_GetCookies
//                               write on a miss (default: outputs untouched)
//   volume MOUNT VOLCOOKIE      FS_GetVolCookie serves MOUNT with VOLCOOKIE
//   file PATH VOLCOOKIE FILECOOKIE   FS_GetCookies serves the full PATH
//                               (VOLCOOKIE "-": the volume cookie is not written)
//   vol.FIELD N                 VolInfo fields: msgLen, vendorStatus, FStype,
//                               GlomType, GlomInfo, nDisks, BlockSize, IDlength
//   vol.cookie TEXT             cookie at byte 32 (default: the one asked for)
//   vol.error TEXT              error text at byte 104 (used when vendorStatus
//                               is not 0; then no disks are written)
//   map.FIELD N                 FSMapInfo fields: fileSize, allocation, msgLen,
//                               vendorStatus, nExtents, extentType, fileOffset,
//                               fileBytes
//   map.text TEXT               FSUNI text at byte 64 instead of extents
//   maxlease.read N, maxlease.write N   FS_GetMaxLeases's maxima in seconds
//                               (default: the preset values are left alone)
// Cookies are short texts stored zero-padded into 32 bytes. Unknown keys are
// reported as a "ConfError line=N text=..." call record.
//
// Defaults of the structures written (always within the room given):
//   VolInfo: vendorStatus 0, FStype 1, GlomType 0, GlomInfo 0, nDisks 1,
//     BlockSize 4096, msgLen 104 + 80 x disks written (104 with a text);
//     FSSystem byte k = 0x40 + k. Disk i (from 0):
//     DiskID byte j = 0x10 x (i + 1) + j, IDlength 16, IDoffset 1000 x (i+1),
//     BlockOffset 2000 x (i+1), nBlocks 100000 x (i+1), the rest 0.
//   FSMapInfo: fileSize and allocation 1048576, vendorStatus 0, nExtents 1,
//     extentType 0, fileOffset = start, fileBytes = length (fileSize - start
//     when length is negative), msgLen 64 + bytes of extents written (64
//     with a text). Extent i (from 0):
//     type 0: BlockOffset 1000 x (i+1), nBlocks 8 x (i+1);
//     types 1, 3: LogicalByteAddr 65536 x i, PhysicalByteAddr 1048576 x (i+1),
//       nBytes 65536, VolumeOrdinal i, validity 1;
//     type 2: VolOrd i, VolSliceBlock 1000 x (i+1), NBlocks 8 x (i+1);
//     type 4 and above: no extents are written.
//   The count fields hold the configured values even when fewer entries fit.
//
// Call records: the entry point's name, then key=value fields, values
// escaped as in the conf, cookies as their bytes up to the first 0:
//   FS_GetVersion result=N
//   FS_Init result=N
//   FS_SetLog level=N reserved=null|set result=N
//   FS_GetVolCookie mount=TEXT result=N
//   FS_GetVolByCookie vol=TEXT room=N result=N
//   FS_GetCookies path=TEXT result=N
//   FS_GetLockedMap vol=TEXT file=TEXT start=N length=N flags=N room=N result=N
//   FS_UnlockMap vol=TEXT file=TEXT result=N
//   FS_SetFileSizes vol=TEXT file=TEXT zero=N size=N alloc=N last=N result=N
//   FS_GetMaxLeases vol=TEXT read=N write=N result=N   (read/write as preset)
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
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
#include "tests/plugins/testfs_escape.h"

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

constexpr int kNotFound = -380;

enum Entry { kSetLog, kGetVolCookie, kGetVolByCookie, kGetCookies, kGetLockedMap,
             kUnlockMap, kSetFileSizes, kGetMaxLeases, kEntryCount };
constexpr const char* kEntryNames[kEntryCount] = {
    "FS_SetLog", "FS_GetVolCookie", "FS_GetVolByCookie", "FS_GetCookies",
    "FS_GetLockedMap", "FS_UnlockMap", "FS_SetFileSizes", "FS_GetMaxLeases"};

std::atomic<int> g_callCount[kEntryCount];

struct FileEntry {
  std::string vol, file;
};

struct Conf {
  long long version = TESTFS_VERSION;
  long long init = TESTFS_INIT_RESULT;
  std::vector<long long> results[kEntryCount];
  long long missVolCookie = kNotFound;
  long long missCookies = kNotFound;
  bool haveMissCookie = false;
  std::string missCookie;
  std::map<std::string, std::string> volumes;
  std::map<std::string, FileEntry> files;
  std::map<std::string, long long> vol;  // vol.FIELD
  bool haveVolCookie = false, haveVolError = false;
  std::string volCookie, volError;
  std::map<std::string, long long> map;  // map.FIELD
  bool haveMapText = false;
  std::string mapText;
  bool haveReadMax = false, haveWriteMax = false;
  long long readMax = 0, writeMax = 0;
  std::vector<std::string> errors;

  long long Vol(const char* key, long long dflt) const {
    auto it = vol.find(key);
    return it == vol.end() ? dflt : it->second;
  }
  long long Map(const char* key, long long dflt) const {
    auto it = map.find(key);
    return it == map.end() ? dflt : it->second;
  }
};

// --- text helpers ---------------------------------------------------------

using testfs::Escape;
using testfs::Unescape;

bool ParseNumber(const std::string& text, long long* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  bool hex = text.rfind("0x", 0) == 0 || text.rfind("-0x", 0) == 0;
  long long v = strtoll(text.c_str(), &end, hex ? 16 : 10);
  if (*end != '\0' || errno != 0) return false;
  *out = v;
  return true;
}

// Cookie bytes up to the first 0 (at most 32).
std::string CookieText(const uint8_t* cookie) {
  if (cookie == nullptr) return "null";
  size_t n = 0;
  while (n < FS_COOKIE_SIZE && cookie[n] != 0) ++n;
  return std::string(reinterpret_cast<const char*>(cookie), n);
}

void StoreCookie(const std::string& text, uint8_t* out) {
  memset(out, 0, FS_COOKIE_SIZE);
  memcpy(out, text.data(), std::min(text.size(), static_cast<size_t>(FS_COOKIE_SIZE)));
}

// FSUNI text (up to its zero unit, at most 8192 units) as UTF-8.
std::string FromFsuni(const FSUNI* s) {
  std::string out;
  if (s == nullptr) return out;
  for (size_t i = 0; i < 8192 && s[i] != 0; ++i) {
    uint32_t c = s[i];
    if (c >= 0xD800 && c < 0xDC00 && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// UTF-8 text as FSUNI units, without the terminating zero.
std::vector<FSUNI> ToFsuni(const std::string& in) {
  std::vector<FSUNI> out;
  for (size_t i = 0; i < in.size();) {
    unsigned char b = static_cast<unsigned char>(in[i]);
    uint32_t c = b;
    size_t extra = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
    if (extra > 0) c = b & (0x3F >> extra);
    ++i;
    for (size_t k = 0; k < extra && i < in.size(); ++k, ++i)
      c = (c << 6) | (static_cast<unsigned char>(in[i]) & 0x3F);
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<FSUNI>(0xD800 + (c >> 10)));
      out.push_back(static_cast<FSUNI>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<FSUNI>(c));
    }
  }
  return out;
}

// --- instance identity, conf and records ------------------------------------

const std::string& InstanceName() {
  static const std::string name = [] {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&InstanceName), &info) == 0 || info.dli_fname == nullptr)
      return std::string("testfs");
    std::string path = info.dli_fname;
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
  }();
  return name;
}

std::string SteeringPath(const char* suffix) {
  const char* dir = getenv("KESTRIX_TESTFS_DIR");
  if (dir == nullptr || *dir == '\0') return std::string();
  return std::string(dir) + "/" + InstanceName() + suffix;
}

void Record(const std::string& line) {
  std::string path = SteeringPath(".calls");
  if (path.empty()) return;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0) return;
  std::string text = line + "\n";
  ssize_t written = write(fd, text.data(), text.size());
  (void)written;
  close(fd);
}

Conf ReadConf() {
  Conf conf;
  std::string path = SteeringPath(".conf");
  if (path.empty()) return conf;
  std::ifstream in(path);
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string w; fields >> w;) f.push_back(w);
    if (f.empty() || f[0][0] == '#') continue;
    const std::string& key = f[0];
    long long n = 0;
    bool ok = true;
    if (key == "version" && f.size() == 2) {
      ok = ParseNumber(f[1], &conf.version);
    } else if (key == "init" && f.size() == 2) {
      ok = ParseNumber(f[1], &conf.init);
    } else if (key == "result" && f.size() >= 3) {
      int entry = -1;
      for (int e = 0; e < kEntryCount; ++e)
        if (f[1] == kEntryNames[e]) entry = e;
      ok = entry >= 0;
      for (size_t i = 2; ok && i < f.size(); ++i) {
        ok = ParseNumber(f[i], &n);
        conf.results[entry].push_back(n);
      }
    } else if (key == "miss" && f.size() == 3 && f[1] == "FS_GetVolCookie") {
      ok = ParseNumber(f[2], &conf.missVolCookie);
    } else if (key == "miss" && f.size() == 3 && f[1] == "FS_GetCookies") {
      ok = ParseNumber(f[2], &conf.missCookies);
    } else if (key == "misscookie" && f.size() == 2) {
      conf.haveMissCookie = true;
      conf.missCookie = Unescape(f[1]);
    } else if (key == "volume" && f.size() == 3) {
      conf.volumes[Unescape(f[1])] = Unescape(f[2]);
    } else if (key == "file" && f.size() == 4) {
      conf.files[Unescape(f[1])] = FileEntry{Unescape(f[2]), Unescape(f[3])};
    } else if (key == "vol.cookie" && f.size() == 2) {
      conf.haveVolCookie = true;
      conf.volCookie = Unescape(f[1]);
    } else if (key == "vol.error" && f.size() == 2) {
      conf.haveVolError = true;
      conf.volError = Unescape(f[1]);
    } else if (key == "map.text" && f.size() == 2) {
      conf.haveMapText = true;
      conf.mapText = Unescape(f[1]);
    } else if (key == "maxlease.read" && f.size() == 2) {
      ok = conf.haveReadMax = ParseNumber(f[1], &conf.readMax);
    } else if (key == "maxlease.write" && f.size() == 2) {
      ok = conf.haveWriteMax = ParseNumber(f[1], &conf.writeMax);
    } else if (key.rfind("vol.", 0) == 0 && f.size() == 2) {
      static const char* const kFields[] = {"msgLen", "vendorStatus", "FStype", "GlomType",
                                            "GlomInfo", "nDisks", "BlockSize", "IDlength"};
      ok = false;
      for (const char* k : kFields) ok = ok || key.substr(4) == k;
      ok = ok && ParseNumber(f[1], &n);
      if (ok) conf.vol[key.substr(4)] = n;
    } else if (key.rfind("map.", 0) == 0 && f.size() == 2) {
      static const char* const kFields[] = {"fileSize", "allocation", "msgLen",
                                            "vendorStatus", "nExtents", "extentType",
                                            "fileOffset", "fileBytes"};
      ok = false;
      for (const char* k : kFields) ok = ok || key.substr(4) == k;
      ok = ok && ParseNumber(f[1], &n);
      if (ok) conf.map[key.substr(4)] = n;
    } else {
      ok = false;
    }
    if (!ok)
      Record("ConfError line=" + std::to_string(number) + " text=" + Escape(line));
  }
  return conf;
}

// The result of the k-th call of an entry point that serves the call.
FSLONG Result(const Conf& conf, Entry entry) {
  int k = g_callCount[entry].fetch_add(1);
  const std::vector<long long>& values = conf.results[entry];
  if (values.empty()) return 0;
  size_t i = static_cast<size_t>(k) < values.size() ? static_cast<size_t>(k) : values.size() - 1;
  return static_cast<FSLONG>(values[i]);
}

std::string Num(long long v) { return std::to_string(v); }

// --- structure writers -----------------------------------------------------

// Writes text and its zero unit at base + offset, cut to fit limit bytes.
// Returns the bytes written.
size_t PutText(uint8_t* base, size_t offset, size_t limit, const std::string& text) {
  if (offset + 2 > limit) return 0;
  std::vector<FSUNI> units = ToFsuni(text);
  size_t fit = (limit - offset) / 2 - 1;
  if (units.size() > fit) units.resize(fit);
  units.push_back(0);
  memcpy(base + offset, units.data(), units.size() * 2);
  return units.size() * 2;
}

// Structures are built in locals and copied, so any buffer alignment works.
void WriteVolInfo(const Conf& conf, const uint8_t* askedCookie, uint8_t* out, size_t room) {
  if (out == nullptr || room < VOLINFO_FIXED_SIZE) return;
  VolInfo v{};
  v.vendorStatus = static_cast<FSLONG>(conf.Vol("vendorStatus", 0));
  v.nDisks = static_cast<FSULONG>(conf.Vol("nDisks", 1));
  size_t tail = 0;  // bytes of disks written; a text is not counted
  if (v.vendorStatus != 0) {
    PutText(out, VOLINFO_FIXED_SIZE, room,
                   conf.haveVolError ? conf.volError : std::string());
  } else {
    for (FSULONG i = 0; i < v.nDisks && VOLINFO_FIXED_SIZE + FSDISK_SIZE * (i + 1) <= room;
         ++i) {
      FSDisk d{};
      for (int j = 0; j < FSDISK_ID_SIZE; ++j) d.DiskID[j] = static_cast<uint8_t>(0x10 * (i + 1) + j);
      d.IDoffset = 1000LL * (i + 1);
      d.BlockOffset = 2000LL * (i + 1);
      d.nBlocks = 100000LL * (i + 1);
      d.IDlength = static_cast<FSULONG>(conf.Vol("IDlength", FSDISK_ID_SIZE));
      memcpy(out + VOLINFO_FIXED_SIZE + FSDISK_SIZE * i, &d, sizeof(d));
      tail += FSDISK_SIZE;
    }
  }
  v.msgLen = static_cast<FSLONG>(conf.Vol("msgLen", static_cast<long long>(VOLINFO_FIXED_SIZE + tail)));
  v.FStype = static_cast<FSLONG>(conf.Vol("FStype", 1));
  v.GlomType = static_cast<FSLONG>(conf.Vol("GlomType", 0));
  v.GlomInfo = static_cast<FSLONG>(conf.Vol("GlomInfo", 0));
  v.BlockSize = static_cast<FSLONG>(conf.Vol("BlockSize", 4096));
  if (conf.haveVolCookie || askedCookie == nullptr)
    StoreCookie(conf.volCookie, v.Cookie);
  else
    memcpy(v.Cookie, askedCookie, FS_COOKIE_SIZE);
  for (int k = 0; k < FSSYSTEM_SIZE; ++k) v.fsSystem.bytes[k] = static_cast<uint8_t>(0x40 + k);
  memcpy(out, &v, sizeof(v));
}

size_t ExtentSize(long long type) {
  switch (type) {
    case FS_EXTENT_COMPACT: return COMPACT_EXTENT_SIZE;
    case FS_EXTENT_VERBOSE: case FS_EXTENT_VERBOSE_ALT: return VERBOSE_EXTENT_SIZE;
    case FS_EXTENT_SIMPLE: return SIMPLE_EXTENT_SIZE;
    default: return 0;
  }
}

void WriteExtent(long long type, long long i, uint8_t* at) {
  if (type == FS_EXTENT_COMPACT) {
    CompactExtent e{1000 * (i + 1), 8 * (i + 1)};
    memcpy(at, &e, sizeof(e));
  } else if (type == FS_EXTENT_SIMPLE) {
    SimpleExtent e{i, 1000 * (i + 1), 8 * (i + 1)};
    memcpy(at, &e, sizeof(e));
  } else {
    VerboseExtent e{65536 * i, 1048576 * (i + 1), 65536, static_cast<FSULONG>(i), 1};
    memcpy(at, &e, sizeof(e));
  }
}

void WriteMap(const Conf& conf, FS64LONG start, FS64LONG length, uint8_t* out, size_t room) {
  if (out == nullptr || room < FSMAPINFO_FIXED_SIZE) return;
  FSMapInfo m{};
  long long type = conf.Map("extentType", FS_EXTENT_COMPACT);
  long long nExtents = conf.Map("nExtents", 1);
  size_t tail = 0;  // bytes of extents written; a text is not counted
  if (conf.haveMapText) {
    PutText(out, FSMAPINFO_FIXED_SIZE, room, conf.mapText);
  } else if (size_t size = ExtentSize(type); size > 0) {
    for (long long i = 0; i < nExtents && FSMAPINFO_FIXED_SIZE + size * (i + 1) <= room; ++i) {
      WriteExtent(type, i, out + FSMAPINFO_FIXED_SIZE + size * i);
      tail += size;
    }
  }
  m.fileSize = conf.Map("fileSize", 1048576);
  m.allocation = conf.Map("allocation", 1048576);
  m.msgLen = static_cast<FSLONG>(conf.Map("msgLen", static_cast<long long>(FSMAPINFO_FIXED_SIZE + tail)));
  m.vendorStatus = static_cast<FSLONG>(conf.Map("vendorStatus", 0));
  m.nExtents = static_cast<FSLONG>(nExtents);
  m.extentType = static_cast<FSULONG>(type);
  m.fileOffset = conf.Map("fileOffset", start);
  m.fileBytes = conf.Map("fileBytes", length >= 0 ? length : m.fileSize - start);
  memcpy(out, &m, sizeof(m));
}

}  // namespace

// --- entry points ----------------------------------------------------------

TESTFS_EXPORT FSLONG FS_GetVersion(void) {
  Conf conf = ReadConf();
  Record("FS_GetVersion result=" + Num(conf.version));
  return static_cast<FSLONG>(conf.version);
}

TESTFS_EXPORT FSLONG FS_Init(void) {
  Conf conf = ReadConf();
#ifdef TESTFS_CALLBACK
  // Binds to the daemon's allocator and logger at load time.
  void* block = ksxmem_memalign(-8, 64, "tfsc");
  if (block != nullptr) ksxmem_free(block);
  OSL_Log(KSX_PRINT, "testfs callback: allocated %d bytes\n", block != nullptr ? 64 : 0);
#endif
  Record("FS_Init result=" + Num(conf.init));
  return static_cast<FSLONG>(conf.init);
}

#ifndef TESTFS_NO_OPTIONAL
TESTFS_EXPORT FSLONG FS_SetLog(int* levelPointer, void* reserved) {
  Conf conf = ReadConf();
  FSLONG result = Result(conf, kSetLog);
  Record("FS_SetLog level=" + (levelPointer ? Num(*levelPointer) : std::string("null")) +
         " reserved=" + (reserved ? "set" : "null") + " result=" + Num(result));
  return result;
}
#endif

TESTFS_EXPORT FSLONG FS_GetVolCookie(const FSUNI* mountPoint, uint8_t* volumeCookieOut) {
  Conf conf = ReadConf();
  std::string mount = FromFsuni(mountPoint);
  FSLONG result;
  auto it = conf.volumes.find(mount);
  if (it != conf.volumes.end()) {
    result = Result(conf, kGetVolCookie);
    if (volumeCookieOut != nullptr) StoreCookie(it->second, volumeCookieOut);
  } else {
    result = static_cast<FSLONG>(conf.missVolCookie);
    if (conf.haveMissCookie && volumeCookieOut != nullptr)
      StoreCookie(conf.missCookie, volumeCookieOut);
  }
  Record("FS_GetVolCookie mount=" + Escape(mount) + " result=" + Num(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetVolByCookie(const uint8_t* volumeCookie, struct VolInfo* info,
                                       FSULONG* room) {
  Conf conf = ReadConf();
  FSULONG bytes = room != nullptr ? *room : 0;
  FSLONG result = Result(conf, kGetVolByCookie);
  WriteVolInfo(conf, volumeCookie, reinterpret_cast<uint8_t*>(info), bytes);
  Record("FS_GetVolByCookie vol=" + Escape(CookieText(volumeCookie)) + " room=" + Num(bytes) +
         " result=" + Num(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetCookies(const FSUNI* path, uint8_t* volumeCookieOut,
                                   uint8_t* fileCookieOut) {
  Conf conf = ReadConf();
  std::string full = FromFsuni(path);
  FSLONG result;
  auto it = conf.files.find(full);
  if (it != conf.files.end()) {
    result = Result(conf, kGetCookies);
    if (volumeCookieOut != nullptr && it->second.vol != "-")
      StoreCookie(it->second.vol, volumeCookieOut);
    if (fileCookieOut != nullptr) StoreCookie(it->second.file, fileCookieOut);
  } else {
    result = static_cast<FSLONG>(conf.missCookies);
    if (conf.haveMissCookie && volumeCookieOut != nullptr)
      StoreCookie(conf.missCookie, volumeCookieOut);
  }
  Record("FS_GetCookies path=" + Escape(full) + " result=" + Num(result));
  return result;
}

TESTFS_EXPORT FSLONG FS_GetLockedMap(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FS64LONG start, FS64LONG length, FSULONG flags,
                                     struct FSMapInfo* map, FSULONG* room) {
  Conf conf = ReadConf();
  FSULONG bytes = room != nullptr ? *room : 0;
  FSLONG result = Result(conf, kGetLockedMap);
  WriteMap(conf, start, length, reinterpret_cast<uint8_t*>(map), bytes);
  Record("FS_GetLockedMap vol=" + Escape(CookieText(volumeCookie)) +
         " file=" + Escape(CookieText(fileCookie)) + " start=" + Num(start) +
         " length=" + Num(length) + " flags=" + Num(flags) + " room=" + Num(bytes) +
         " result=" + Num(result));
  return result;
}

#ifndef TESTFS_NO_UNLOCK
TESTFS_EXPORT FSLONG FS_UnlockMap(const uint8_t* volumeCookie, const uint8_t* fileCookie) {
  Conf conf = ReadConf();
  FSLONG result = Result(conf, kUnlockMap);
  Record("FS_UnlockMap vol=" + Escape(CookieText(volumeCookie)) +
         " file=" + Escape(CookieText(fileCookie)) + " result=" + Num(result));
  return result;
}
#endif

TESTFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                     FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                     FS64LONG allOnes) {
  Conf conf = ReadConf();
  FSLONG result = Result(conf, kSetFileSizes);
  Record("FS_SetFileSizes vol=" + Escape(CookieText(volumeCookie)) +
         " file=" + Escape(CookieText(fileCookie)) + " zero=" + Num(zero) +
         " size=" + Num(fileSize) + " alloc=" + Num(allocSize) + " last=" + Num(allOnes) +
         " result=" + Num(result));
  return result;
}

#ifndef TESTFS_NO_OPTIONAL
TESTFS_EXPORT FSLONG FS_GetMaxLeases(const uint8_t* volumeCookie, FSLONG* readMaxSeconds,
                                     FSLONG* writeMaxSeconds) {
  Conf conf = ReadConf();
  FSLONG result = Result(conf, kGetMaxLeases);
  std::string presetRead = readMaxSeconds ? Num(*readMaxSeconds) : std::string("null");
  std::string presetWrite = writeMaxSeconds ? Num(*writeMaxSeconds) : std::string("null");
  if (conf.haveReadMax && readMaxSeconds != nullptr)
    *readMaxSeconds = static_cast<FSLONG>(conf.readMax);
  if (conf.haveWriteMax && writeMaxSeconds != nullptr)
    *writeMaxSeconds = static_cast<FSLONG>(conf.writeMax);
  Record("FS_GetMaxLeases vol=" + Escape(CookieText(volumeCookie)) + " read=" + presetRead +
         " write=" + presetWrite + " result=" + Num(result));
  return result;
}
#endif
