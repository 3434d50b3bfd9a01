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
#include <set>
#include <string>
#include <vector>

#include "client/kxoutput.h"
#include "client/kxsession.h"
#include "client/kxdirect.h"
#include "client/kxfile.h"
#include "client/kxpump.h"
#include "spmsgs.h"

namespace {

using namespace kestrix::client;

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitNoReply = 2;
constexpr int kExitErrorResult = 3;
constexpr int kExitLocal = 4;
constexpr int64_t kProgressFrom = 4 << 20;  // show progress for transfers above this
// read and write move data through this many buffers of this size, some
// being filled while others are drained: the memory of a transfer.
constexpr size_t kBuffers = 4;
constexpr size_t kBufferBytes = 8 << 20;

const char kUsage[] =
    "usage: kestrix-cli [options] COMMAND ARGS... [options]\n"
    "commands:\n"
    "  read SHARE PATH [--disk DEV]... [-o FILE]\n"
    "                            the file's bytes, read straight from the disk\n"
    "  write SHARE PATH [--disk DEV]... [-i FILE] [--names DIR]\n"
    "                            replace the file's contents, written straight to the disk\n"
    "  getvolume SHARE_OR_PATH   volume behind a share name or absolute path\n"
    "  getvolume-cookie HEX      volume named by its cookie (up to 32 bytes)\n"
    "  open SHARE PATH [--write] [--size N] [--alloc N] [--lease MS] [--unlocked]\n"
    "                            open a file: its lease key, cookies and map\n"
    "  map KEY [START [LENGTH]] [--lease MS]\n"
    "                            map of a range (LENGTH 0: to the end); renews the lease\n"
    "  setsize KEY SIZE [--lease MS]\n"
    "                            new file size; renews the lease\n"
    "  close KEY [--size N]      give the lease up, optionally with a final size\n"
    "  raw CODE [LENGTH]         header-only request; prints the reply header\n"
    "  log LEVEL [DESTINATION]   LOG string command: log level and destination\n"
    "                            (SCREEN, SYSTEM or a file; none: system log)\n"
    "  cmd TEXT                  any string command, sent as TEXT\n"
    "options:\n"
    "  -h, --host HOST           daemon host (default 127.0.0.1)\n"
    "  -p, --port PORT           UDP port (default $KESTRIX_PORT or 5501)\n"
    "  -t, --timeout MS          wait per attempt (default 2000)\n"
    "  -r, --retries N           attempts after a time-out (default 2)\n"
    "  --json                    one JSON document per reply\n"
    "  --swapped                 send requests in the other byte order\n"
    "  --disk PATH               device or image file to look for the volume's disk\n"
    "                            (repeatable; default: the machine's block devices)\n"
    "  -o, --output FILE         read: write the data there instead of standard output\n"
    "  -i, --input FILE          write: take the data from there instead of standard input\n"
    "  --names DIR               write: the share as mounted here; a missing file is\n"
    "                            created there first\n"
    "exit status: 0 done, 1 usage, 2 no reply, 3 error result, 4 local failure (disk, file)\n";

// Options that take a value, by every name they go by.
const std::map<std::string, std::string> kValued = {
    {"-h", "host"},    {"--host", "host"},       {"-p", "port"},     {"--port", "port"},
    {"-t", "timeout"}, {"--timeout", "timeout"}, {"-r", "retries"},  {"--retries", "retries"},
    {"--disk", "disk"}, {"-o", "output"},        {"--output", "output"}, {"-i", "input"},
    {"--input", "input"}, {"--names", "names"}, {"--size", "size"},    {"--alloc", "alloc"}, {"--lease", "lease"}};
const std::map<std::string, std::string> kSwitches = {
    {"--json", "json"}, {"--swapped", "swapped"}, {"--write", "write"},
    {"--unlocked", "unlocked"}, {"--help", "help"}};

// Which command-specific options each command takes.
const std::map<std::string, std::set<std::string>> kCommandOptions = {
    {"read", {"disk", "output"}},
    {"write", {"disk", "input", "names"}},
    {"open", {"write", "size", "alloc", "lease", "unlocked"}},
    {"map", {"lease"}},
    {"setsize", {"lease"}},
    {"close", {"size"}}};
const std::set<std::string> kGeneral = {"host", "port", "timeout", "retries", "json", "swapped", "help"};

struct Args {
  std::vector<std::string> words;
  std::multimap<std::string, std::string> options;
  bool Has(const std::string& name) const { return options.count(name) != 0; }
  std::string Get(const std::string& name) const {
    auto range = options.equal_range(name);
    return range.first == range.second ? "" : std::prev(range.second)->second;  // last wins
  }
};

int UsageError(const std::string& why) {
  if (!why.empty()) std::fprintf(stderr, "kestrix-cli: %s\n", why.c_str());
  std::fputs(kUsage, stderr);
  return kExitUsage;
}

bool LooksNumeric(const std::string& s) {
  return s.size() >= 2 && s[0] == '-' && (std::isdigit(static_cast<unsigned char>(s[1])) != 0);
}

// Splits the command line into words and options; nothing with *why on error.
std::optional<Args> Split(int argc, char** argv, std::string* why) {
  Args a;
  bool optionsEnd = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (optionsEnd || arg.size() < 2 || arg[0] != '-' || LooksNumeric(arg)) {
      a.words.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnd = true;
      continue;
    }
    std::optional<std::string> inlineValue;
    if (size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      inlineValue = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
    }
    if (auto s = kSwitches.find(arg); s != kSwitches.end() && !inlineValue) {
      a.options.emplace(s->second, "");
    } else if (auto v = kValued.find(arg); v != kValued.end()) {
      if (!inlineValue && i + 1 == argc) {
        *why = arg + " needs a value";
        return std::nullopt;
      }
      a.options.emplace(v->second, inlineValue ? *inlineValue : argv[++i]);
    } else {
      *why = "unknown option '" + arg + "'";
      return std::nullopt;
    }
  }
  return a;
}

// A whole decimal (or 0x hex) number within [low, high].
std::optional<long long> Number(const std::string& text, long long low, long long high) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long value = std::strtoll(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || value < low || value > high) return std::nullopt;
  return value;
}

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
  explicit Cli(Args args) : args_(std::move(args)), json_(args_.Has("json")) {}

  int Run() {
    if (args_.Has("help")) {
      std::fputs(kUsage, stdout);
      return kExitOk;
    }
    if (args_.words.empty()) return UsageError("");
    const std::string& command = args_.words[0];
    auto allowed = kCommandOptions.find(command);
    for (const auto& [name, value] : args_.options) {
      if (kGeneral.count(name) == 0 &&
          (allowed == kCommandOptions.end() || allowed->second.count(name) == 0))
        return UsageError("'" + command + "' takes no --" + name + " option");
    }
    ClientOptions o;
    o.port = DefaultPort();
    o.swapped = args_.Has("swapped");
    if (args_.Has("host")) o.host = args_.Get("host");
    std::optional<long long> n;
    if (args_.Has("port") && !(n = Number(args_.Get("port"), 1, 65535)))
      return UsageError("bad port '" + args_.Get("port") + "'");
    if (n) o.port = static_cast<uint16_t>(*n);
    if (args_.Has("timeout") && !(n = Number(args_.Get("timeout"), 0, 3600000)))
      return UsageError("bad timeout '" + args_.Get("timeout") + "'");
    if (args_.Has("timeout")) o.timeoutMs = static_cast<int>(*n);
    if (args_.Has("retries") && !(n = Number(args_.Get("retries"), 0, 100)))
      return UsageError("bad retries '" + args_.Get("retries") + "'");
    if (args_.Has("retries")) o.retries = static_cast<int>(*n);
    client_options_ = o;

    const size_t words = args_.words.size();
    if (command == "read" && words == 3) return Read();
    if (command == "write" && words == 3) return Write();
    if (command == "getvolume" && words == 2) return GetVolume();
    if (command == "getvolume-cookie" && words == 2) return GetVolumeByCookie();
    if (command == "open" && words == 3) return Open();
    if ((command == "map" && words >= 2 && words <= 4) ||
        ((command == "setsize") && words == 3) || (command == "close" && words == 2))
      return Lease();
    if (command == "raw" && (words == 2 || words == 3)) return Raw();
    if (command == "log" && (words == 2 || words == 3)) return Log();
    if (command == "cmd" && words == 2) return StringCommand(args_.words[1]);
    return UsageError("");
  }

 private:
  Client& client() {
    if (!client_) client_ = std::make_unique<Client>(client_options_);
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
    std::optional<GetVolumeInfo> v = client().GetVolume(args_.words[1]);
    if (!v) return NoAnswer();
    Print(VolumeDoc(*v));
    return ExitFor(v->result);
  }

  int GetVolumeByCookie() {
    std::optional<Bytes> cookie = ParseHex(args_.words[1], FS_COOKIE_SIZE);
    if (!cookie) return UsageError("bad cookie '" + args_.words[1] + "' (hex, at most 32 bytes)");
    cookie->resize(FS_COOKIE_SIZE, 0);
    std::optional<GetVolumeInfo> v = client().GetVolumeByCookie(cookie->data());
    if (!v) return NoAnswer();
    Print(VolumeDoc(*v));
    return ExitFor(v->result);
  }

  int Open() {
    OpenOptions o;
    std::optional<long long> n;
    if (args_.Has("write")) o.intention = 0;
    if (args_.Has("unlocked")) o.flag |= FS_M_FLAG_UNLOCKED;
    if (args_.Has("size") && !(n = Number(args_.Get("size"), -1, INT64_MAX)))
      return UsageError("bad --size '" + args_.Get("size") + "'");
    if (args_.Has("size")) o.fileSize = *n;
    if (args_.Has("alloc") && !(n = Number(args_.Get("alloc"), -1, INT64_MAX)))
      return UsageError("bad --alloc '" + args_.Get("alloc") + "'");
    if (args_.Has("alloc")) o.allocSize = *n;
    if (args_.Has("lease") && !(n = Number(args_.Get("lease"), 0, UINT32_MAX)))
      return UsageError("bad --lease '" + args_.Get("lease") + "'");
    if (args_.Has("lease")) o.lease = static_cast<uint32_t>(*n);
    std::optional<MapReply> m = client().Open(args_.words[1], args_.words[2], o);
    if (!m) return NoAnswer();
    Print(MapDoc(*m));
    return ExitFor(m->result);
  }

  // map, setsize and close: a lease key and numbers.
  int Lease() {
    const std::string& command = args_.words[0];
    std::optional<long long> key = Number(args_.words[1], 0, UINT32_MAX);
    if (!key) return UsageError("bad key '" + args_.words[1] + "'");
    std::vector<long long> numbers;
    for (size_t i = 2; i < args_.words.size(); ++i) {
      std::optional<long long> n = Number(args_.words[i], -1, INT64_MAX);
      if (!n) return UsageError("bad number '" + args_.words[i] + "'");
      numbers.push_back(*n);
    }
    std::optional<long long> lease = args_.Has("lease") ? Number(args_.Get("lease"), 0, UINT32_MAX) : 0;
    std::optional<long long> size = args_.Has("size") ? Number(args_.Get("size"), -1, INT64_MAX) : -1;
    if (!lease || !size) return UsageError("bad --lease or --size");
    const auto k = static_cast<uint32_t>(*key);
    if (command == "map") {
      std::optional<MapReply> m = client().ExtendedMap(k, numbers.size() > 0 ? numbers[0] : 0,
                                                       numbers.size() > 1 ? numbers[1] : 0,
                                                       static_cast<uint32_t>(*lease));
      if (!m) return NoAnswer();
      Print(MapDoc(*m));
      return ExitFor(m->result);
    }
    std::optional<StatusReply> s = command == "setsize"
                                       ? client().SetSize(k, numbers[0], static_cast<uint32_t>(*lease))
                                       : client().Close(k, *size);
    if (!s) return NoAnswer();
    Print(StatusDoc(*s));
    return ExitFor(s->result);
  }

  int Raw() {
    std::optional<long long> code = Number(args_.words[1], INT32_MIN, INT32_MAX);
    std::optional<long long> length =
        args_.words.size() == 3 ? Number(args_.words[2], 0, UINT32_MAX) : LAN_HEADER_SIZE;
    if (!code || !length) return UsageError("raw needs a numeric CODE and LENGTH");
    Bytes request = MakeRequest(static_cast<int32_t>(*code), LAN_HEADER_SIZE);
    HeaderOf(request)->length = static_cast<uint32_t>(*length);
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
    std::string text = "LOG";
    for (size_t i = 1; i < args_.words.size(); ++i) {
      if (args_.words[i].find('|') != std::string::npos)
        return UsageError("LEVEL and DESTINATION cannot hold '|'");
      text += "|" + args_.words[i];
    }
    return StringCommand(text);
  }

  int StringCommand(const std::string& text) {
    std::optional<int32_t> result = client().Command(text);
    if (!result) return NoAnswer();
    Print(Doc::Object().Add("result", ResultDoc(*result)).AddJsonOnly("resultName", Doc::Text(ResultName(*result))));
    return ExitFor(*result);
  }

  FileOptions Transfer(const char* verb, bool write, int64_t total) {
    FileOptions t;
    t.daemon = client_options_;
    t.write = write;
    for (auto [it, end] = args_.options.equal_range("disk"); it != end; ++it)
      t.disks.push_back(it->second);
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
    const std::string output = args_.Get("output");
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
        RemoteFile::Open(args_.words[1], args_.words[2], Transfer("read", false, -1), &f);
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
    const std::string& share = args_.words[1];
    const std::string& path = args_.words[2];
    std::unique_ptr<RemoteFile> file = RemoteFile::Open(share, path, o, f);
    if (file || f->errnum != ENOENT || f->result != SP_RESULT_FILE_NOT_FOUND) return file;
    const std::string names = args_.Get("names");
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
    const std::string input = args_.Get("input");
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

  Args args_;
  bool json_;
  ClientOptions client_options_;
  std::unique_ptr<Client> client_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string why;
  std::optional<Args> args = Split(argc, argv, &why);
  if (!args) return UsageError(why);
  return Cli(std::move(*args)).Run();
}
