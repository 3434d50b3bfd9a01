// Feeds each input as datagrams through the daemon's own path: the
// listener's callback (DgramServer_MessageHandler), LAN_ProcessMessage and
// the handlers of every function code, with two testfs instances loaded
// (liba.so serves /vol/a, libb.so /vol/b), a demo smb.conf and a tracker
// bound of 2.
//
// An input may start with a script: '#' and five bytes. The first four
// choose the plug-in's answers (kResults below) and what it writes; the
// fifth sends up to three more copies of the datagram, with new message IDs
// or from another host. The datagram follows. Each input starts from the
// same state, one lease (key 0 on /vol/a/f) and an empty tracker, and what
// it leaves is removed afterwards.
#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "sp/fsmdcsp.h"
#include "sp/lease.h"
#include "unixmdc/kestrixd.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace {

constexpr size_t kReceiveSize = DGRAM_RECEIVE_BUFFER_SIZE;
constexpr int kResults[8] = {0, 1, 400, -380, -1, 5, 2, 405};
uint8_t g_buffer[kReceiveSize + kestrix::kDgramGuardBytes];
int g_level = KSX_HIGH;
std::string g_dir, g_script = "unset";
DgramAddress g_sender;
int g_replies = -1;  // where replies go; drained after each input

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// The conf of one instance for a script (empty: the defaults).
std::string Conf(const std::string& vol, const std::string& cookie, const std::string& s) {
  std::string c = "volume /vol/" + vol + " " + cookie + "\nfile /vol/" + vol + "/f " + cookie +
                  " F" + vol + "\nfile /vol/" + vol + "/g " + cookie + " G" + vol +
                  "\nfile /vol/" + vol + "/x - X\nmaxlease.read 60\n";
  if (s.size() < 5) return c;
  auto r = [&](int byte, int shift) { return std::to_string(kResults[(s[byte] >> shift) & 7]); };
  c += "result FS_GetVolCookie " + r(0, 0) + "\nresult FS_GetVolByCookie " + r(0, 4) +
       "\nresult FS_GetCookies " + r(1, 0) + "\nresult FS_GetLockedMap " + r(1, 4) +
       "\nresult FS_SetFileSizes " + r(2, 0) + "\nresult FS_GetMaxLeases " + r(3, 4) +
       "\nvol.nDisks " + std::to_string(s[3] & 7) + "\nmap.nExtents " +
       std::to_string((s[3] >> 3) & 7) + "\nmap.extentType " + std::to_string((s[4] >> 4) & 3) +
       "\n";
  switch ((s[2] >> 4) & 3) {
    case 1: return c + "vol.vendorStatus 7\nvol.error no\\x20disk\n";
    case 2: return c + "map.msgLen -100\n";
    case 3: return c + "map.msgLen 70000\n";
  }
  return c;
}

void Script(const std::string& s) {
  if (s == g_script) return;
  g_script = s;
  Write(g_dir + "/steer/liba.so.conf", Conf("a", "VOLA", s));
  Write(g_dir + "/steer/libb.so.conf", Conf("b", "VOLB", s));
  g_level = s.size() == 5 && (s[3] & 0x80) ? KSX_ERROR : KSX_HIGH;
}

// Back to the state every input starts from: no lease but key 0, an empty
// tracker, the log where the harness put it.
void Reset(bool openLease) {
  while (leaseListHeadGlb.next != &leaseListHeadGlb) {
    uint8_t vol[FS_COOKIE_SIZE], file[FS_COOKIE_SIZE];
    RemoveLeaseFromList(leaseListHeadGlb.next->key, vol, file, leaseListHeadGlb.next->library,
                        "fuzz");
  }
  while (info->tracker.next != &info->tracker) {
    TrackerEntry* e = info->tracker.next;
    e->prev->next = e->next;
    e->next->prev = e->prev;
    ksxmem_free(e->headerCopy);
    ksxmem_free(e->replyCopy);
    ksxmem_free(e);
  }
  info->numReplies = 0;
  if (GetLogLevel() != g_level || strcmp(g_filename, "/dev/null") != 0)
    OSL_SetLog(&g_level, "/dev/null", "kestrixd");
  globalKey = 0;
  if (!openLease) return;
  uint8_t vol[FS_COOKIE_SIZE] = "VOLA", file[FS_COOKIE_SIZE] = "Fa", id[LAN_MSGID_SIZE] = "lease";
  FSULONG key;
  const uint8_t sender[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};
  AddLeaseToList(vol, file, id, sender, 2, 600000, &key, libs[0], nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  const char* base = getenv("TMPDIR");
  g_dir = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kestrix-fuzz-XXXXXX";
  if (mkdtemp(g_dir.data()) == nullptr) abort();
  for (const char* sub : {"/lib", "/steer"}) std::filesystem::create_directory(g_dir + sub);
  // LOG commands may write only here; the seeds name it.
  const std::string logDir = std::filesystem::path(g_dir).parent_path() / "kestrix-fuzz-log";
  std::filesystem::create_directory(logDir);
  setenv("KESTRIX_LOG_DIR", logDir.c_str(), 1);
  for (const char* name : {"/lib/liba.so", "/lib/libb.so"})
    std::filesystem::copy_file(KESTRIX_FUZZ_TESTFS, g_dir + name);
  Write(g_dir + "/smb.conf",
        "[data]\n   path = /vol/a\n[other]\n   path = /vol/b\n[bare]\n   path = relative\n"
        "[long]\n   path = /" + std::string(300, 'l') + "\n[homes]\n   comment = homes\n");
  setenv("KESTRIX_LIBDIR", (g_dir + "/lib").c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", (g_dir + "/steer").c_str(), 1);
  setenv("KESTRIX_SMBPATH", (g_dir + "/smb.conf").c_str(), 1);
  Script("");
  OSL_SetLog(&g_level, "/dev/null", "kestrixd");
  g_kestrixdsem = OSL_SemCreate(1);
  g_MaxDuplicateMessages = 2;
  kestrix::SetUpServer();
  atexit([] { std::filesystem::remove_all(g_dir); });
  const uint8_t volume[FS_COOKIE_SIZE] = "VOLA";
  AddVolumeDispatcherToList(volume, libs[0]);

  // Replies go to a socket of our own, emptied after every input.
  g_replies = socket(AF_INET, SOCK_DGRAM, 0);
  g_sender.socket = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in& to = g_sender.address;
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof to;
  if (bind(g_replies, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
      getsockname(g_replies, reinterpret_cast<sockaddr*>(&to), &length) != 0)
    abort();
  Reset(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const bool scripted = size >= 6 && data[0] == '#';
  const std::string script = scripted ? std::string(reinterpret_cast<const char*>(data + 1), 5) : "";
  Script(script);
  if (scripted) data += 6, size -= 6;
  if (size == 0) return 0;  // the listener never passes an empty datagram on
  if (size > kReceiveSize) size = kReceiveSize;
  Reset(true);
  const int copies = scripted ? script[4] & 3 : 0;
  for (int copy = 0; copy <= copies; ++copy) {
    std::memset(g_buffer, 0, sizeof g_buffer);
    std::memcpy(g_buffer, data, size);
    if (copy > 0 && (script[4] & 4) && size > 8) g_buffer[8] += copy;  // a new message ID
    DgramAddress sender = g_sender;
    if (copy > 0 && (script[4] & 8)) sender.address.sin_addr.s_addr = htonl(0x7f000002);
    DgramServer_MessageHandler(g_buffer, static_cast<int>(size), &sender, info);
  }
  while (recv(g_replies, g_buffer, sizeof g_buffer, MSG_DONTWAIT) > 0) {
  }
  Reset(false);
  // The plug-ins record every call; the records are not needed here.
  static unsigned inputs = 0;
  if (++inputs % 512 == 0) {
    std::filesystem::remove(g_dir + "/steer/liba.so.calls");
    std::filesystem::remove(g_dir + "/steer/libb.so.calls");
  }
  return 0;
}
