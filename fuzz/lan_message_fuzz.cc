// Feeds each input as datagrams through the daemon's own path: the
// listener's callback (DgramServer_MessageHandler), LAN_ProcessMessage and
// the handlers of every function code, with two testfs instances loaded
// (liba.so serves /vol/a, libb.so /vol/b), a demo smb.conf and a tracker
// bound of 2.
//
// An input may start with a script: '#' and five bytes. The first four
// choose the plug-in's answers (kResults below), what it writes and the log
// level; the fifth sends up to three more copies of the datagram, with new
// message IDs or from another host. The datagram follows. Each input starts
// from the same state, one lease (key 0 on /vol/a/f, held by the sender of
// the first copy, who may hold 3) and an empty tracker,
// and what it leaves is removed afterwards. Besides the sanitizers' findings,
// an input fails when a handler rewrites bytes past its request, or when it
// makes the daemon write more than kMaxLines log lines at the default level.
#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "sp/fsmdcsp.h"
#include "sp/lease.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "unixmdc/kestrixd.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace {

constexpr size_t kReceiveSize = DGRAM_RECEIVE_BUFFER_SIZE;
constexpr int kResults[8] = {0, 1, 400, -380, -1, 5, 2, 405};
constexpr int kMaxLines = 24;  // per datagram at the default level, texts of several lines included
uint8_t g_buffer[kReceiveSize + kestrix::kDgramGuardBytes];
int g_level = KSX_HIGH, g_log = -1;  // the log: a memory file, emptied before each input
std::string g_dir, g_logPath, g_script = "unset";
DgramAddress g_sender;

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// The conf of one instance for a script (empty: the defaults).
std::string Conf(const std::string& v, const std::string& cookie, const std::string& s) {
  std::string c = "volume /vol/" + v + " " + cookie + "\nfile /vol/" + v + "/f " + cookie + " F" +
                  v + "\nfile /vol/" + v + "/g " + cookie + " G" + v + "\nfile /vol/" + v +
                  "/x - X\nmaxlease.read 60\n";
  if (s.size() < 5) return c;
  auto r = [&](int byte, int shift) {
    return std::to_string(kResults[(s[byte] >> shift) & 7]) + "\n";
  };
  c += "result FS_GetVolCookie " + r(0, 0) + "result FS_GetVolByCookie " + r(0, 4) +
       "result FS_GetCookies " + r(1, 0) + "result FS_GetLockedMap " + r(1, 4) +
       "result FS_SetFileSizes " + r(2, 0) + "result FS_GetMaxLeases " + r(3, 4) + "vol.nDisks " +
       std::to_string(s[3] & 7) + "\nmap.nExtents " + std::to_string((s[3] >> 3) & 7) +
       "\nmap.extentType " + std::to_string((s[4] >> 4) & 3) + "\n";
  const char* odd[] = {"", "vol.vendorStatus 7\nvol.error no\\x20disk\n", "map.msgLen -100\n",
                       "map.msgLen 70000\n"};
  return c + odd[(s[2] >> 4) & 3];
}

void Script(const std::string& s) {
  if (s == g_script) return;
  g_script = s;
  Write(g_dir + "/steer/liba.so.conf", Conf("a", "VOLA", s));
  Write(g_dir + "/steer/libb.so.conf", Conf("b", "VOLB", s));
  g_level = s.size() == 5 && (s[3] & 0x80) ? KSX_ERROR : KSX_HIGH;
}

// Back to the state every input starts from: no lease but key 0, an empty
// tracker, the log where the harness put it, and empty.
void Reset(bool openLease) {
  for (LeaseEntry* e; (e = leaseListHeadGlb.next) != &leaseListHeadGlb;) {
    uint8_t vol[FS_COOKIE_SIZE], file[FS_COOKIE_SIZE];
    RemoveLeaseFromList(e->key, vol, file, e->library, "fuzz");
  }
  // Every tracked request got its reply stored, so a purge empties the tracker.
  const int bound = std::exchange(g_MaxDuplicateMessages, 0);
  PurgeTrackerList(info);
  g_MaxDuplicateMessages = bound;
  FSULONG answered, inProcess;
  kestrix::TrackerCounts(info, &answered, &inProcess);
  if (answered + inProcess != 0) abort();
  if (GetLogLevel() != g_level || g_logPath != g_filename)
    OSL_SetLog(&g_level, g_logPath.c_str(), "kestrixd");
  if (ftruncate(g_log, 0) != 0) abort();
  globalKey = 0;
  uint8_t vol[FS_COOKIE_SIZE] = "VOLA", file[FS_COOKIE_SIZE] = "Fa", id[LAN_MSGID_SIZE] = "lease";
  const uint8_t sender[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};
  if (openLease) AddLeaseToList(vol, file, id, sender, 2, 600000, &answered, libs[0], nullptr);
}

// Bytes of the request that a handler may rewrite in place.
size_t RequestSize(int32_t code) {
  const size_t sizes[8] = {LAN_HEADER_SIZE,   sizeof(GetVolumeMsg), sizeof(GetInitialMapMsg),
                           sizeof(GetExtendedMapMsg), sizeof(SetSizeMsg), sizeof(CloseMsg),
                           LAN_HEADER_SIZE,   sizeof(SendStringCmdMsg)};
  return code >= 0 && code < 8 ? sizes[code] : LAN_HEADER_SIZE;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  g_dir = std::filesystem::temp_directory_path() / "kestrix-fuzz-XXXXXX";
  if (mkdtemp(g_dir.data()) == nullptr) abort();
  for (const char* sub : {"/lib", "/steer"}) std::filesystem::create_directory(g_dir + sub);
  // LOG commands may write only here; the seeds name it.
  const std::string logDir = std::filesystem::path(g_dir).parent_path() / "kestrix-fuzz-log";
  std::filesystem::create_directory(logDir);
  setenv("KESTRIX_LOG_DIR", logDir.c_str(), 1);
  for (const char* name : {"/lib/liba.so", "/lib/libb.so"})
    std::filesystem::copy_file(KESTRIX_FUZZ_TESTFS, g_dir + name);
  const std::string longPath = "/" + std::string(300, 'l');
  Write(g_dir + "/smb.conf",
        "[data]\n   path = /vol/a\n[other]\n   path = /vol/b\n[bare]\n   path = relative\n"
        "[long]\n   path = " + longPath + "\n[homes]\n");
  setenv("KESTRIX_LIBDIR", (g_dir + "/lib").c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", (g_dir + "/steer").c_str(), 1);
  setenv("KESTRIX_SMBPATH", (g_dir + "/smb.conf").c_str(), 1);
  setenv("KESTRIX_MAX_LEASES_PER_CLIENT", "3", 1);
  atexit([] { std::filesystem::remove_all(g_dir); });
  g_log = memfd_create("kestrix-fuzz-log", 0);
  g_logPath = "/proc/self/fd/" + std::to_string(g_log);
  Script("");
  OSL_SetLog(&g_level, g_logPath.c_str(), "kestrixd");
  g_kestrixdsem = OSL_SemCreate(1);
  g_MaxDuplicateMessages = 2;
  kestrix::SetUpServer();
  const uint8_t volume[FS_COOKIE_SIZE] = "VOLA";
  AddVolumeDispatcherToList(volume, libs[0]);
  // Replies go to the discard port of the loopback: nobody reads them.
  g_sender = {
      socket(AF_INET, SOCK_DGRAM, 0), {AF_INET, htons(9), {htonl(INADDR_LOOPBACK)}, {}}, {}};
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const bool scripted = size >= 6 && data[0] == '#';
  const std::string script =
      scripted ? std::string(reinterpret_cast<const char*>(data + 1), 5) : "";
  Script(script);
  if (scripted) data += 6, size -= 6;
  if (size == 0) return 0;  // the listener never passes an empty datagram on
  if (size > kReceiveSize) size = kReceiveSize;
  Reset(true);
  for (int copy = 0; copy <= (scripted ? script[4] & 3 : 0); ++copy) {
    std::memset(g_buffer, 0, sizeof g_buffer);
    std::memcpy(g_buffer, data, size);
    if (copy > 0 && (script[4] & 4) && size > 8) g_buffer[8] += copy;  // a new message ID
    DgramAddress sender = g_sender;
    if (copy > 0 && (script[4] & 8)) sender.address.sin_addr.s_addr = htonl(0x7f000002);
    DgramServer_MessageHandler(g_buffer, static_cast<int>(size), &sender, info);
    // The rest of the datagram stays as received, the rest of the buffer zero.
    const size_t end = RequestSize(reinterpret_cast<LanHeader*>(g_buffer)->functionCode);
    for (size_t i = end; i < end + 4096 && i < sizeof g_buffer; ++i)
      if (g_buffer[i] != (i < size ? data[i] : 0)) abort();
  }
  if (g_level == KSX_ERROR && GetLogLevel() == KSX_ERROR && g_logPath == g_filename) {
    const ssize_t n = pread(g_log, g_buffer, sizeof g_buffer, 0);
    if (n > 0 && std::count(g_buffer, g_buffer + n, '\n') > kMaxLines * (1 + (script[4] & 3)))
      abort();
  }
  Reset(false);
  static unsigned inputs = 0;  // the plug-ins' call records are not needed
  for (const char* name : {"/steer/liba.so.calls", "/steer/libb.so.calls"})
    if (++inputs % 1024 < 2) std::filesystem::remove(g_dir + name);
  return 0;
}
