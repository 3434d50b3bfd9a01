// kestrix-cli: talks to a running kestrixd. Request commands send one
// request and print the reply; read and write move a file's data straight
// between this machine and the shared disk. Options may stand before or
// after the command words.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/kxadmin.h"
#include "client/kxcmdline.h"
#include "client/kxoutput.h"
#include "client/kxsession.h"
#include "client/kxdirect.h"
#include "client/kxfile.h"
#include "client/kxpump.h"
#include "spmsgs.h"

namespace {

using namespace kestrix::client;

constexpr int kExitOk = 0;
constexpr int kExitNoReply = 2;
constexpr int kExitErrorResult = 3;
constexpr int kExitLocal = 4;
constexpr int64_t kProgressFrom = 4 << 20;  // show progress for transfers above this
// read and write move data through this many buffers of this size, some
// being filled while others are drained: the memory of a transfer.
constexpr size_t kBuffers = 4;
constexpr size_t kBufferBytes = 8 << 20;

// The first failure of a transfer's threads, for its message.
class Why {
 public:
  bool Set(const std::string& why) {
    std::lock_guard<std::mutex> l(mu_);
    if (why_.empty()) why_ = why;
    return false;
  }
  std::string Get() {
    std::lock_guard<std::mutex> l(mu_);
    return why_;
  }

 private:
  std::mutex mu_;
  std::string why_;
};

class Cli {
 public:
  // Adds the commands, their arguments and options to app.
  explicit Cli(CLI::App& app) : app_(app) {
    daemon_.port = DefaultPort();
    app.add_option("-h,--host", daemon_.host, "daemon host (default 127.0.0.1)")->type_name("HOST");
    app.add_option("-p,--port", daemon_.port, "UDP port (default $KESTRIX_PORT or 5501)")
        ->type_name("PORT")->check(Within(1, 65535));
    app.add_option("-t,--timeout", daemon_.timeoutMs, "wait per attempt (default 2000)")
        ->type_name("MS")->check(Within(0, 3600000));
    app.add_option("-r,--retries", daemon_.retries, "attempts after a time-out (default 2)")
        ->type_name("N")->check(Within(0, 100));
    app.add_flag("--json", json_, "one JSON document per reply");
    app.add_flag("--swapped", daemon_.swapped, "send requests in the other byte order");
    app.footer("Options may stand before or after the command words.\n"
               "exit status: 0 done, 1 usage, 2 no reply, 3 error result, 4 local failure (disk, file)");

    CLI::App* c = Command("read", "the file's bytes, read straight from the disk", [this] { return Read(); });
    SharePath(c);
    Disks(c);
    c->add_option("-o,--output", output_, "write the data there instead of standard output")->type_name("FILE");
    c = Command("write", "replace the file's contents, written straight to the disk", [this] { return Write(); });
    SharePath(c);
    Disks(c);
    c->add_option("-i,--input", input_, "take the data from there instead of standard input")->type_name("FILE");
    c->add_option("--names", names_, "the share as mounted here; a missing file is created there first")
        ->type_name("DIR");
    c = Command("getvolume", "volume behind a share name or absolute path", [this] { return GetVolume(); });
    Arg(c, "SHARE_OR_PATH", share_, "a share's name, or an absolute path on the daemon")->required();
    c = Command("getvolume-cookie", "volume named by its cookie (up to 32 bytes)",
                [this] { return GetVolumeByCookie(); });
    Arg(c, "HEX", text_, "the volume cookie in hex, zero-filled to 32 bytes")->required();
    c = Command("open", "open a file: its lease key, cookies and map", [this] { return Open(); });
    SharePath(c);
    c->add_flag("--write", [this](int64_t) { open_.intention = 0; }, "for writing (default: reading)");
    Size(c, &open_.fileSize, "the new file size");
    c->add_option("--alloc", open_.allocSize, "the new allocation size")->type_name("N")->check(Within(-1, INT64_MAX));
    Lease(c);
    c->add_flag("--unlocked", [this](int64_t) { open_.flag |= FS_M_FLAG_UNLOCKED; }, "the map without a lease");
    c = Command("map", "map of a range (LENGTH 0: to the end); renews the lease", [this] { return Map(); });
    Key(c);
    Arg(c, "START", start_, "the first byte (default 0)")->check(Within(-1, INT64_MAX));
    Arg(c, "LENGTH", length_, "bytes to map (default 0: to the end)")->check(Within(-1, INT64_MAX));
    Lease(c);
    c = Command("setsize", "new file size; renews the lease", [this] { return SetSize(); });
    Key(c);
    Arg(c, "SIZE", size_, "the new file size")->required()->check(Within(-1, INT64_MAX));
    Lease(c);
    c = Command("close", "give the lease up, optionally with a final size", [this] { return Close(); });
    Key(c);
    Size(c, &size_, "the final file size");
    c = Command("raw", "header-only request; prints the reply header", [this] { return Raw(); });
    Arg(c, "CODE", code_, "the function code")->required()->check(Within(INT32_MIN, INT32_MAX, "code"));
    Arg(c, "LENGTH", rawLength_, "the header's length field (default 48)")->check(Within(0, UINT32_MAX, "length"));
    c = Command("log", "LOG string command: log level and destination", [this] { return Log(); });
    Arg(c, "LEVEL", text_, "the log level")->required();
    Arg(c, "DESTINATION", destination_, "SCREEN, SYSTEM or a file (none: the system log)");
    c = Command("cmd", "any string command, sent as TEXT", [this] { return StringCommand(text_); });
    Arg(c, "TEXT", text_, "the command's text")->required();
  }

  // The exit status of the command given.
  int Run() { return commands_.at(&GivenCommand(app_))(); }

 private:
  CLI::App* Command(const char* name, const char* what, std::function<int()> run) {
    CLI::App* c = app_.add_subcommand(name, what)->fallthrough()->group("Commands");
    c->footer("General options (-h, -p, -t, -r, --json, --swapped): kestrix-cli --help");
    commands_[c] = std::move(run);
    return c;
  }
  template <typename T>
  static CLI::Option* Arg(CLI::App* c, const char* name, T& value, const char* what = "") {
    return c->add_option(name, value, what)->type_name("");
  }
  void Key(CLI::App* c) { Arg(c, "KEY", key_, "the lease key")->required()->check(Within(0, UINT32_MAX, "key")); }
  void Size(CLI::App* c, int64_t* size, const char* what) {
    c->add_option("--size", *size, what)->type_name("N")->check(Within(-1, INT64_MAX));
  }
  void SharePath(CLI::App* c) {
    Arg(c, "SHARE", share_, "the share's name")->required();
    Arg(c, "PATH", path_, "the file's path in the share")->required();
  }
  void Lease(CLI::App* c) {
    c->add_option("--lease", open_.lease, "the lease to ask for")->type_name("MS")->check(Within(0, UINT32_MAX));
  }
  void Disks(CLI::App* c) {
    c->add_option("--disk", disks_, "device or image file to look for the volume's disk on\n"
                                    "(repeatable; default: the machine's block devices)")
        ->type_name("DEV")->allow_extra_args(false)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }

  Client& client() {
    if (!client_) client_ = std::make_unique<Client>(daemon_);
    return *client_;
  }

  // A document printed in the chosen form.
  void Print(const Doc& d, FILE* to = stdout) {
    std::fputs(json_ ? (d.Json() + "\n").c_str() : d.Human().c_str(), to);
    std::fflush(to);
  }

  int Failure(int status, const std::string& error, std::optional<int32_t> result = {},
              FILE* jsonTo = stdout) {
    std::fprintf(stderr, "kestrix-cli: %s\n", error.c_str());
    if (json_) {
      Doc d = Doc::Object();
      d.Add("error", Doc::Text(error));
      if (result) d.Add("result", Doc::Int(*result)).Add("resultName", Doc::Text(ResultName(*result)));
      Print(d, jsonTo);
    }
    return status;
  }

  // No reply, or a reply of another kind than asked for.
  int NoAnswer() {
    return Failure(client().replied() ? kExitErrorResult : kExitNoReply, client().error());
  }

  static int ExitFor(int32_t result) {
    return result == 0 || result == 1 ? kExitOk : kExitErrorResult;
  }

  int GetVolume() {
    std::optional<GetVolumeInfo> v = client().GetVolume(share_);
    if (!v) return NoAnswer();
    Print(VolumeDoc(*v));
    return ExitFor(v->result);
  }

  int GetVolumeByCookie() {
    std::optional<Bytes> cookie = ParseHex(text_, FS_COOKIE_SIZE);
    if (!cookie) return UsageError(app_, "bad cookie '" + text_ + "' (hex, at most 32 bytes)");
    cookie->resize(FS_COOKIE_SIZE, 0);
    std::optional<GetVolumeInfo> v = client().GetVolumeByCookie(cookie->data());
    if (!v) return NoAnswer();
    Print(VolumeDoc(*v));
    return ExitFor(v->result);
  }

  int Open() {
    std::optional<MapReply> m = client().Open(share_, path_, open_);
    if (!m) return NoAnswer();
    Print(MapDoc(*m));
    return ExitFor(m->result);
  }

  int Map() {
    std::optional<MapReply> m = client().ExtendedMap(key_, start_, length_, open_.lease);
    if (!m) return NoAnswer();
    Print(MapDoc(*m));
    return ExitFor(m->result);
  }

  int SetSize() { return Status(client().SetSize(key_, size_, open_.lease)); }
  int Close() { return Status(client().Close(key_, size_)); }

  int Status(const std::optional<StatusReply>& s) {
    if (!s) return NoAnswer();
    Print(StatusDoc(*s));
    return ExitFor(s->result);
  }

  int Raw() {
    Bytes request = MakeRequest(code_, LAN_HEADER_SIZE);
    HeaderOf(request)->length = rawLength_;
    std::optional<Bytes> reply = client().Call(request);
    if (!reply) return NoAnswer();
    std::optional<ReplyHeader> h = ParseHeader(*reply);
    if (!h) return Failure(kExitErrorResult, "a reply of " + std::to_string(reply->size()) +
                                                 " bytes, shorter than a header");
    Print(HeaderDoc(*h));
    return kExitOk;  // any header is an answer here
  }

  // "log LEVEL [DESTINATION]": the pieces joined by '|', so that a
  // destination may hold blanks.
  int Log() {
    if ((text_ + destination_).find('|') != std::string::npos)
      return UsageError(app_, "LEVEL and DESTINATION cannot hold '|'");
    const bool destination = app_.get_subcommand("log")->count("DESTINATION") > 0;
    return StringCommand("LOG|" + text_ + (destination ? "|" + destination_ : ""));
  }

  int StringCommand(const std::string& text) {
    std::optional<int32_t> result = client().Command(text);
    if (!result) return NoAnswer();
    Print(Doc::Object().Add("result", ResultDoc(*result)).AddJsonOnly("resultName", Doc::Text(ResultName(*result))));
    return ExitFor(*result);
  }

  FileOptions Transfer(const char* verb, bool write, int64_t total) {
    FileOptions t;
    t.daemon = daemon_;
    t.write = write;
    t.disks = disks_;
    if (isatty(STDERR_FILENO)) {
      t.progress = [verb, total, last = std::chrono::steady_clock::time_point{}](int64_t done) mutable {
        auto now = std::chrono::steady_clock::now();
        if ((total >= 0 && total < kProgressFrom) || now - last < std::chrono::milliseconds(200))
          return;
        last = now;
        if (total > 0)
          std::fprintf(stderr, "\r%s %s of %s (%d%%)   ", verb, ShortSize(done).c_str(),
                       ShortSize(total).c_str(), static_cast<int>(done * 100 / total));
        else
          std::fprintf(stderr, "\r%s %s   ", verb, ShortSize(done).c_str());
      };
    }
    return t;
  }

  // Exit status of a failed open.
  int OpenFailed(const OpenFailure& f, FILE* summaryTo) {
    if (f.noReply) return Failure(kExitNoReply, f.error, {}, summaryTo);
    if (f.result != 0) return Failure(kExitErrorResult, f.error, f.result, summaryTo);
    return Failure(kExitLocal, f.error, {}, summaryTo);
  }

  // Exit status of a transfer that failed half-way (why: what the file says).
  int TransferFailed(const RemoteFile& file, const std::string& why, FILE* summaryTo) {
    const FileStats s = file.stats();
    if (s.noReply) return Failure(kExitNoReply, why, {}, summaryTo);
    if (s.result != 0) return Failure(kExitErrorResult, why, s.result, summaryTo);
    return Failure(kExitLocal, why, {}, summaryTo);
  }

  int Read() {
    const std::string& output = output_;
    int fd = STDOUT_FILENO;
    if (!output.empty() && (fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) < 0)
      return Failure(kExitLocal, "cannot create " + output + ": " + std::strerror(errno));
    // With the data on standard output the summary goes to standard error,
    // and a person sees none.
    FILE* summaryTo = output.empty() ? stderr : stdout;
    int status = ReadInto(fd, summaryTo);
    if (!output.empty()) {
      if (close(fd) != 0 && status == kExitOk)
        status = Failure(kExitLocal, "writing " + output + ": " + std::strerror(errno));
      if (status != kExitOk) unlink(output.c_str());  // no half-read file is left behind
    }
    return status;
  }

  int ReadInto(int fd, FILE* summaryTo) {
    OpenFailure f;
    std::unique_ptr<RemoteFile> file =
        RemoteFile::Open(share_, path_, Transfer("read", false, -1), &f);
    if (!file) return OpenFailed(f, summaryTo);
    const int64_t size = file->Size();
    int64_t out = 0;
    Why why;
    // Two readers keep the disk busy while the output takes the bytes in order.
    const bool ok = Pump(
        PumpOptions{kBuffers, kBufferBytes, 2, 1},
        [&](uint64_t chunk, uint8_t* buf, size_t cap, const std::atomic<bool>&) -> ssize_t {
          ssize_t n = file->Read(static_cast<int64_t>(chunk * cap), buf, cap);
          if (n < 0) why.Set(file->error());
          return n;
        },
        [&](uint64_t, const uint8_t* buf, size_t n) {
          for (size_t done = 0; done < n;) {
            ssize_t put = write(fd, buf + done, n - done);
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return why.Set("writing the output: " + std::string(std::strerror(errno)));
            done += static_cast<size_t>(put);
          }
          out += static_cast<int64_t>(n);
          return true;
        });
    if (!ok) return TransferFailed(*file, why.Get(), summaryTo);
    if (file->Close() != 0) return TransferFailed(*file, file->error(), summaryTo);
    if (isatty(STDERR_FILENO) && size >= kProgressFrom) std::fputc('\n', stderr);
    if (summaryTo == stderr && !json_) return kExitOk;
    Print(TransferDoc("read", out, size, file->stats()), summaryTo);
    return kExitOk;
  }

  // The remote file for writing; a missing one is created under --names
  // DIR when given (the share as mounted on this machine).
  std::unique_ptr<RemoteFile> OpenForWrite(const FileOptions& o, OpenFailure* f) {
    const std::string& share = share_;
    const std::string& path = path_;
    std::unique_ptr<RemoteFile> file = RemoteFile::Open(share, path, o, f);
    if (file || f->errnum != ENOENT || f->result != SP_RESULT_FILE_NOT_FOUND) return file;
    const std::string& names = names_;
    if (names.empty()) {
      f->error = path + " does not exist on share " + share +
                 "; a file is first created through the share (where it is mounted; "
                 "--names DIR creates it there, DIR being the share's directory on this machine)";
      return nullptr;
    }
    const std::string local = names + "/" + path;
    int fd = open(local.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      f->error = "creating " + local + ": " + std::strerror(errno);
      f->result = 0;
      return nullptr;
    }
    close(fd);
    // A share mounted over the network may show the new name a moment late.
    for (int attempt = 0; attempt < 20; ++attempt) {
      if ((file = RemoteFile::Open(share, path, o, f)) || f->errnum != ENOENT) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!file && f->errnum == ENOENT)
      f->error = "created " + local + ", but the daemon does not find " + path + " on share " +
                 share + ": " + f->error + " (is DIR the share's directory?)";
    return file;
  }

  int Write() {
    const std::string& input = input_;
    int fd = input.empty() ? STDIN_FILENO : open(input.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Failure(kExitLocal, "cannot open " + input + ": " + std::strerror(errno));
    struct stat st;
    const int64_t expected = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : -1;
    FileOptions o = Transfer("written", true, expected);
    o.expectedSize = expected;
    OpenFailure f;
    // The file is opened (and its disks found) before any input is read.
    std::unique_ptr<RemoteFile> file = OpenForWrite(o, &f);
    if (!file) {
      if (fd != STDIN_FILENO) close(fd);
      return OpenFailed(f, stdout);
    }
    std::atomic<int64_t> offset{0};
    Why why;
    // One reader of the input in order, two writers of the remote file.
    const bool ok = Pump(
        PumpOptions{kBuffers, kBufferBytes, 1, 2},
        [&](uint64_t, uint8_t* buf, size_t cap, const std::atomic<bool>& stop) -> ssize_t {
          size_t got = 0;  // whole buffers, so that writes stay large and aligned
          while (got < cap) {
            // A failed transfer does not wait for an input that never ends.
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 200) == 0) {
              if (stop) return -1;
              continue;
            }
            ssize_t n = read(fd, buf + got, cap - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return why.Set("reading the input: " + std::string(std::strerror(errno))), -1;
            if (n == 0) break;
            got += static_cast<size_t>(n);
          }
          return static_cast<ssize_t>(got);
        },
        [&](uint64_t chunk, const uint8_t* buf, size_t n) {
          if (file->Write(static_cast<int64_t>(chunk * kBufferBytes), buf, n) < 0) return why.Set(file->error());
          offset += static_cast<int64_t>(n);
          return true;
        });
    if (fd != STDIN_FILENO) close(fd);
    if (!ok) return TransferFailed(*file, why.Get(), stdout);
    // A longer old file is cut to the new contents once they are written.
    if (file->Size() > offset && file->Truncate(offset) != 0)
      return TransferFailed(*file, file->error(), stdout);
    if (file->Close() != 0) return TransferFailed(*file, file->error(), stdout);
    if (isatty(STDERR_FILENO) && offset >= kProgressFrom) std::fputc('\n', stderr);
    Print(TransferDoc("write", offset, offset, file->stats()), stdout);
    return kExitOk;
  }

  CLI::App& app_;
  std::map<const CLI::App*, std::function<int()>> commands_;  // what each command runs
  // The command line's values; each command reads those it takes.
  ClientOptions daemon_;
  bool json_ = false;
  std::string share_, path_, text_, destination_, output_, input_, names_;
  std::vector<std::string> disks_;
  OpenOptions open_;  // open, and the lease of map and setsize
  uint32_t key_ = 0, rawLength_ = LAN_HEADER_SIZE;
  int32_t code_ = 0;
  int64_t start_ = 0, length_ = 0, size_ = -1;
  std::unique_ptr<Client> client_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Talks to a running kestrixd: requests and their replies, and file data moved\n"
               "straight between this machine and the shared disk.",
               "kestrix-cli");
  SetUpCommandLine(app);
  app.require_subcommand(1);
  Cli cli(app);
  AdminCommands admin(app);
  if (std::optional<int> status = ParseCommandLine(app, argc, argv)) return *status;
  return admin.given() ? admin.Run() : cli.Run();
}
