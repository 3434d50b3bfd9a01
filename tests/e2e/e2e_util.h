// Shared pieces of the end-to-end tests.
#ifndef KESTRIX_TESTS_E2E_E2E_UTIL_H_
#define KESTRIX_TESTS_E2E_E2E_UTIL_H_

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sys/stat.h>

#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "client/kxclient.h"
#include "support/daemon_process.h"
#include "support/loop_mount.h"
#include "support/testfs.h"

namespace kestrix::test {

using client::Bytes;

// A JSON document flattened for assertions: {"a":[1,"x"]} gives "/a/0" -> "1"
// and "/a/1" -> "x". Empty when the text is not one well-formed document.
inline std::map<std::string, std::string> FlatJson(const std::string& text) {
  std::map<std::string, std::string> flat;
  const nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
  const nlohmann::json leaves = doc.is_discarded() ? nlohmann::json::object() : doc.flatten();
  for (const auto& [key, value] : leaves.items())
    flat[key] = value.is_string() ? value.get<std::string>() : value.dump();
  return flat;
}

// The 48-byte reply the LAN server makes from a request header.
inline Bytes ExpectedLanReply(const Bytes& requestHeaderInHostOrder, int result) {
  Bytes reply(requestHeaderInHostOrder.begin(), requestHeaderInHostOrder.begin() + 48);
  LanHeader* h = client::HeaderOf(reply);
  h->byteOrder = 1;
  h->length = 48;
  // Negated without overflow: INT32_MIN stays itself.
  h->functionCode = static_cast<int32_t>(0u - static_cast<uint32_t>(h->functionCode));
  h->result = result;
  return reply;
}

// n bytes of seeded noise: file contents that no stale block could pass for.
inline std::string Random(size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(random());
  return s;
}

// A share "data" that localfs serves from the directory "export" of a
// loop-mounted image: the daemon is set up for it, not started. ok() is
// false (see fs->skipReason()) when no image could be made.
struct LocalfsShare {
  LocalfsShare(DaemonProcess& daemon, FsKind kind, int mib = 0, const std::string& conf = "")
      : fs(std::make_unique<LoopMount>(kind, mib)) {
    if (!fs->ok()) return;
    exp = fs->Path("export");
    mkdir(exp.c_str(), 0755);
    struct stat st;
    if (stat(exp.c_str(), &st) == 0) blockSize = st.st_blksize;
    WriteFile(daemon.dir().File("smb.conf"), "[data]\n   path = " + exp + "\n");
    WriteFile(daemon.dir().File("localfs.conf"), exp + "\n" + conf);
    symlink(KESTRIX_LOCALFS_PLUGIN, (daemon.libDir() + "/localfs.so").c_str());
    daemon.SetEnv("KESTRIX_SMBPATH", daemon.dir().File("smb.conf"));
    daemon.SetEnv("KESTRIX_LOCALFS_CONF", daemon.dir().File("localfs.conf"));
  }
  bool ok() const { return fs->ok(); }

  std::unique_ptr<LoopMount> fs;
  std::string exp;  // the exported directory
  int64_t blockSize = 4096;
};

// A daemon with testfs plug-ins steered from a directory of the test's own,
// and one client endpoint to it.
class PluginDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override { daemon_.SetEnv("KESTRIX_TESTFS_DIR", steer_.path()); }
  void Install(const std::string& variant, const std::string& name, const std::string& conf) {
    InstallTestPlugin(variant, daemon_.libDir(), name);
    TestFs(steer_.path(), name).Configure(conf);
  }
  void Start(std::vector<std::string> args = {"-l", "10"}) {
    ASSERT_TRUE(daemon_.Start(args)) << daemon_.Log();
    endpoint_ = std::make_unique<client::Endpoint>("127.0.0.1", daemon_.port());
    ASSERT_TRUE(endpoint_->ok());
  }
  Bytes Ask(const Bytes& request) {
    auto reply = endpoint_->Transact(request);
    EXPECT_TRUE(reply.has_value());
    return reply.value_or(Bytes(48, 0));
  }
  // Library file names in the order the daemon accepted them.
  std::vector<std::string> LoadOrder() const {
    std::vector<std::string> names;
    for (const auto& line : SplitLines(daemon_.Log()))
      if (line.find("Successfully loaded library ") != std::string::npos)
        names.push_back(line.substr(line.rfind('/') + 1));
    return names;
  }
  TestFs Fs(const std::string& name) const { return TestFs(steer_.path(), name); }

  TempDir steer_;
  DaemonProcess daemon_;
  std::unique_ptr<client::Endpoint> endpoint_;
};

// A plug-in daemon whose share "data" lies at /export/data, for the map
// handlers' tests. Send and AskFrom give every request a fresh message ID.
class MapE2E : public PluginDaemonTest {
 protected:
  void SetUp() override {
    PluginDaemonTest::SetUp();
    WriteFile(daemon_.dir().File("smb.conf"), "[data]\n   path = /export/data\n");
  }
  TestFs Serve(const std::string& conf, const std::string& name = "liba.so") {
    Install("libtestfs.so", name, conf);
    return Fs(name);
  }
  // A fresh daemon process, so that the plug-in counts its calls from 0 again.
  void Restart() {
    daemon_.Stop();
    std::remove(daemon_.logPath().c_str());
    Start();
  }
  Bytes Send(Bytes request) {
    client::Write(request, 8, ++sequence_);
    return Ask(request);
  }
  client::MapReply Open(const std::string& file, const client::OpenOptions& o = {}) {
    return client::ParseMapReply(Send(client::MakeGetInitialMapRequest("data", file, o)))
        .value_or(client::MapReply{});
  }
  int32_t Result(const Bytes& request) { return client::Read<int32_t>(Send(request), 48); }
  // The reply to a request sent from another loopback address, such as 127.0.0.2.
  Bytes AskFrom(const char* local, Bytes request) {
    client::Write(request, 8, ++sequence_);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in from{AF_INET, 0, {}, {}};
    sockaddr_in to{AF_INET, htons(daemon_.port()), {htonl(INADDR_LOOPBACK)}, {}};
    inet_pton(AF_INET, local, &from.sin_addr);
    const timeval wait{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    Bytes reply(65536);
    const bool sent = bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
                      sendto(fd, request.data(), request.size(), 0,
                             reinterpret_cast<sockaddr*>(&to), sizeof to) > 0;
    const ssize_t n = sent ? recv(fd, reply.data(), reply.size(), 0) : -1;
    close(fd);
    EXPECT_GT(n, 0) << "no reply to " << local;
    reply.resize(n > 48 ? n : 52);
    return reply;
  }

  std::atomic<uint64_t> sequence_{0};  // AskFrom may run on a thread of the test
};

// The map, size and unlock calls a testfs instance saw, in order:
// "map START LENGTH FLAGS|size SIZE ALLOC|unlock|".
inline std::string MapCalls(const TestFs& fs) {
  std::string out;
  for (const CallRecord& c : fs.Calls()) {
    if (c.function == "FS_GetLockedMap")
      out += "map " + c.Get("start") + " " + c.Get("length") + " " + c.Get("flags") + "|";
    if (c.function == "FS_SetFileSizes")
      out += "size " + c.Get("size") + " " + c.Get("alloc") + "|";
    if (c.function == "FS_UnlockMap") out += "unlock|";
  }
  return out;
}

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_E2E_E2E_UTIL_H_
