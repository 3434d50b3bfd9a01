// kestrix-mount: mounts a share of a kestrixd on this host with FUSE, its
// names taken from a directory where this host already sees them, its
// data read and written straight on the shared disk. Stays in the
// foreground with -f; unmounting (fusermount3 -u, umount) or SIGINT/SIGTERM
// ends it, and every lease still held is closed on the way out.
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "client/kxmount.h"

namespace kestrix::client {

namespace {
bool g_foreground = true;
bool g_verbose = false;
}  // namespace

void SetMountLog(bool foreground, bool verbose) {
  g_foreground = foreground;
  g_verbose = verbose;
  if (!foreground) openlog("kestrix-mount", LOG_PID, LOG_DAEMON);
}

void MountLog(bool verbose, const char* format, ...) {
  if (verbose && !g_verbose) return;
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (!g_foreground) return syslog(verbose ? LOG_INFO : LOG_ERR, "%s", text);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm tm;
  gmtime_r(&now.tv_sec, &tm);
  fprintf(stderr, "%02d:%02d:%02d.%03ld kestrix-mount: %s\n", tm.tm_hour, tm.tm_min, tm.tm_sec,
          now.tv_nsec / 1000000, text);
}

const fuse_lowlevel_ops& Mount::Operations() {
  static const fuse_lowlevel_ops ops = [] {
    fuse_lowlevel_ops o = {};
    o.init = [](void*, fuse_conn_info* conn) {
      // Large requests: a program's 1 MiB read or write reaches the disk
      // as one piece. Written data is never held back by the kernel.
      conn->max_write = 1 << 20;
      conn->max_readahead = 0;
      // Written data is spliced into a pipe and copied once, into an
      // aligned buffer.
      conn->want &= ~(FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_SPLICE_WRITE);
      if (conn->capable & FUSE_CAP_SPLICE_READ) conn->want |= FUSE_CAP_SPLICE_READ;
      if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC) conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
      if (conn->capable & FUSE_CAP_ASYNC_DIO) conn->want |= FUSE_CAP_ASYNC_DIO;
    };
    AddNameOperations(o);
    AddDataOperations(o);
    return o;
  }();
  return ops;
}

}  // namespace kestrix::client

namespace {

using namespace kestrix::client;

const char kUsage[] =
    "usage: kestrix-mount [options] --names DIR SHARE MOUNTPOINT\n"
    "Mounts SHARE of a kestrixd on MOUNTPOINT: names from DIR, data straight on the shared disk.\n"
    "options:\n"
    "  --names DIR           where this host sees the share's names (required)\n"
    "  -H, --host HOST       daemon host (default 127.0.0.1)\n"
    "  -p, --port PORT       UDP port (default $KESTRIX_PORT or 5501)\n"
    "  -t, --timeout MS      wait per attempt of a request (default 2000)\n"
    "  -r, --retries N       attempts after a time-out (default 2)\n"
    "  --disk DEV            device or image to look for the volume's disks\n"
    "                        (repeatable; default: the machine's block devices)\n"
    "  --lease MS            lease to ask for (default: the daemon's)\n"
    "  --give-up MS          I/O fails (EIO) after the daemon has not confirmed a lease\n"
    "                        for this long (default 30000)\n"
    "  -o OPT[,OPT...]       FUSE mount options (allow_other, ro, ...)\n"
    "  -f                    stay in the foreground, log to standard error\n"
    "  -d                    FUSE debugging output (implies -f)\n"
    "  -s                    one request at a time\n"
    "  -v, --verbose         log every open and close\n"
    "  -h, --help            this text\n"
    "exit status: 0 unmounted, 1 usage, 2 the daemon or the share cannot be used, 3 mounting failed\n";

struct Options {
  MountConfig config;
  std::vector<std::string> fuseOptions;
  std::string mountPoint;
  bool foreground = false, debug = false, single = false, verbose = false;
};

int Usage(const std::string& why) {
  fprintf(stderr, "kestrix-mount: %s\n%s", why.c_str(), kUsage);
  return 1;
}

bool Number(const std::string& text, long min, long max, long* out) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || v < min || v > max) return false;
  *out = v;
  return true;
}

// 0 when the options are complete, else the exit status.
int Parse(int argc, char** argv, Options* o) {
  std::vector<std::string> words;
  ClientOptions& daemon = o->config.file.daemon;
  daemon.port = DefaultPort();
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string v;
    long n;
    if (a == "-h" || a == "--help") return fputs(kUsage, stdout), -1;
    if (a == "-f") o->foreground = true;
    else if (a == "-d") o->debug = o->foreground = true;
    else if (a == "-s") o->single = true;
    else if (a == "-v" || a == "--verbose") o->verbose = true;
    else if (a == "-H" || a == "--host") { if (!value(&daemon.host)) return Usage(a + " needs a host"); }
    else if (a == "-p" || a == "--port") {
      if (!value(&v) || !Number(v, 1, 65535, &n)) return Usage(a + " needs a port from 1 to 65535");
      daemon.port = static_cast<uint16_t>(n);
    } else if (a == "-t" || a == "--timeout") {
      if (!value(&v) || !Number(v, 1, 600000, &n)) return Usage(a + " needs milliseconds from 1 to 600000");
      daemon.timeoutMs = static_cast<int>(n);
    } else if (a == "-r" || a == "--retries") {
      if (!value(&v) || !Number(v, 0, 100, &n)) return Usage(a + " needs a count from 0 to 100");
      daemon.retries = static_cast<int>(n);
    } else if (a == "--lease") {
      if (!value(&v) || !Number(v, 1, INT_MAX, &n)) return Usage(a + " needs milliseconds");
      o->config.file.leaseMs = static_cast<uint32_t>(n);
    } else if (a == "--give-up") {
      if (!value(&v) || !Number(v, 1, INT_MAX, &n)) return Usage(a + " needs milliseconds");
      o->config.file.giveUpMs = static_cast<int>(n);
    } else if (a == "--disk") {
      if (!value(&v)) return Usage(a + " needs a device or image");
      o->config.file.disks.push_back(v);
    } else if (a == "--names") {
      if (!value(&o->config.names)) return Usage(a + " needs a directory");
    } else if (a == "-o") {
      if (!value(&v)) return Usage("-o needs mount options");
      o->fuseOptions.push_back(v);
    } else if (a.starts_with("-o")) {
      o->fuseOptions.push_back(a.substr(2));
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option " + a);
    } else {
      words.push_back(a);
    }
  }
  if (words.size() != 2) return Usage("SHARE and MOUNTPOINT are needed");
  if (o->config.names.empty()) return Usage("--names DIR is needed");
  o->config.share = words[0];
  o->mountPoint = words[1];
  char real[PATH_MAX];
  struct stat st;
  if (!realpath(o->config.names.c_str(), real) || stat(real, &st) != 0 || !S_ISDIR(st.st_mode)) {
    fprintf(stderr, "kestrix-mount: --names %s: not a directory\n", o->config.names.c_str());
    return 1;
  }
  o->config.names = real;
  // Names taken from inside the mount would ask the mount itself.
  char point[PATH_MAX];
  if (realpath(o->mountPoint.c_str(), point) &&
      (o->config.names == point || o->config.names.starts_with(std::string(point) + "/"))) {
    fprintf(stderr, "kestrix-mount: --names %s lies inside the mount point\n", real);
    return 1;
  }
  o->config.file.reopen = true;
  return 0;
}

// The share must be known to the daemon before anything is mounted, so a
// wrong host, port or share name is said at once.
int CheckShare(const MountConfig& config) {
  Client client(config.file.daemon);
  std::optional<GetVolumeInfo> v = client.GetVolume(config.share);
  if (!v) {
    fprintf(stderr, "kestrix-mount: share %s: %s\n", config.share.c_str(), client.error().c_str());
    return 2;
  }
  if (v->result != 0 || v->vendorStatus != 0) {
    fprintf(stderr, "kestrix-mount: share %s: result %d (%s) %s\n", config.share.c_str(), v->result,
            ResultName(v->result != 0 ? v->result : v->vendorStatus), v->errorText.c_str());
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (int status = Parse(argc, argv, &o)) return status < 0 ? 0 : status;
  if (int status = CheckShare(o.config)) return status;

  std::string options = "fsname=kestrix:" + o.config.share + ",subtype=kestrix,default_permissions";
  if (geteuid() == 0) options += ",allow_other";
  std::vector<std::string> args = {"kestrix-mount", "-o", options};
  for (const std::string& extra : o.fuseOptions) args.insert(args.end(), {"-o", extra});
  if (o.debug) args.push_back("-d");
  std::vector<char*> argvFuse;
  for (std::string& a : args) argvFuse.push_back(a.data());
  fuse_args fargs = FUSE_ARGS_INIT(static_cast<int>(argvFuse.size()), argvFuse.data());

  Mount mount(o.config);
  if (!mount.ok()) {
    fprintf(stderr, "kestrix-mount: --names %s: %s\n", o.config.names.c_str(), strerror(errno));
    return 2;
  }
  fuse_session* se = fuse_session_new(&fargs, &Mount::Operations(), sizeof(fuse_lowlevel_ops), &mount);
  if (!se) return 1;  // libfuse said why (an unknown -o option)
  int status = 3;
  if (fuse_set_signal_handlers(se) == 0) {
    if (fuse_session_mount(se, o.mountPoint.c_str()) == 0) {
      SetMountLog(o.foreground, o.verbose);
      MountLog(false, "share %s mounted on %s, names from %s", o.config.share.c_str(), o.mountPoint.c_str(),
               o.config.names.c_str());
      fuse_daemonize(o.foreground ? 1 : 0);
      int loop;
      if (o.single) {
        loop = fuse_session_loop(se);
      } else {
        fuse_loop_config* lc = fuse_loop_cfg_create();
        fuse_loop_cfg_set_max_threads(lc, 16);
        loop = fuse_session_loop_mt(se, lc);
        fuse_loop_cfg_destroy(lc);
      }
      fuse_session_unmount(se);
      const int closed = mount.CloseAll();
      MountLog(false, "unmounted %s%s", o.mountPoint.c_str(),
               closed ? (", closed " + std::to_string(closed) + " open files").c_str() : "");
      status = loop == 0 || loop == SIGINT || loop == SIGTERM || loop == SIGHUP ? 0 : 3;
    }
    fuse_remove_signal_handlers(se);
  }
  fuse_session_destroy(se);
  fuse_opt_free_args(&fargs);
  return status;
}
