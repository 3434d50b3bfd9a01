// The open remote file: opening by share and path, its lease (kept by
// KeptLease) and the bringing back of a lost one, the map fetched by range
// and checked, allocation growth, and the direct transfers of each Read and
// Write, one round (depth x ioBytes) at a time, each round only while the
// lease is known to be alive.
#include "client/kxfile.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>

#include "client/kxdirect.h"
#include "client/kxdisk.h"
#include "client/kxlease.h"
#include "client/kxmap.h"
#include "plugins/localfs/localfs.h"
#include "fsvalidity.h"
#include "spmsgs.h"

namespace kestrix::client {

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr int kRetryPauseMs = 200;       // between attempts to confirm or reopen a lease
constexpr int64_t kMinGrowth = 64 << 20;  // the allocation runs this far ahead at least
constexpr int64_t kMaxGrowth = int64_t{1} << 30;
constexpr int64_t kMapAhead = 256 << 20;  // a map is asked for this far at least, for the next rounds
constexpr uint32_t kBeyondEnd = 0;  // a piece past the daemon's end of file
// Map flag of a file opened only to read: the server then holds it against
// local writers only, so local readers do not keep the map from being given.
constexpr uint32_t kReadOnlyMap = FS_M_FLAG_READ_ONLY;

int ErrnoOfResult(int32_t result) {
  switch (result) {
    case SP_RESULT_FILE_NOT_FOUND:
    case SP_RESULT_UNKNOWN_SHARE:
    case SP_RESULT_NO_FILE_NAME:
      return ENOENT;
    case SP_RESULT_KEY_NOT_FOUND:
    case SP_RESULT_LEASE_GONE:
    case SP_RESULT_LEASE_NOT_RENEWED:
      return ESTALE;
    case SP_RESULT_NO_MEMORY:
      return ENOMEM;
    // The server will not map a file whose blocks do not hold its bytes
    // (encrypted, verity, journalled data) or that has other names.
    case LOCALFS_REFUSED:
      return EPERM;
    // The file is open on the server, or a change there waits for the maps.
    case LOCALFS_BUSY:
    case LOCALFS_WITHDRAWN:
      return EBUSY;
    default:
      return EIO;
  }
}

std::string ResultText(int32_t result) {
  return "result " + std::to_string(result) + " (" + ResultName(result) + ")";
}

std::string Bytes(int64_t from, int64_t to) {
  return "bytes " + std::to_string(from) + " to " + std::to_string(to - 1);
}

int64_t RoundDown(int64_t v, int64_t a) { return v / a * a; }
int64_t RoundUp(int64_t v, int64_t a) { return (v + a - 1) / a * a; }

// One direct transfer of a round: a part of an extent, its place on the
// disk, and the caller's bytes it moves. A part whose disk range or buffer
// is not aligned goes through a bounce buffer of whole aligned units.
struct Part {
  uint32_t disk = 0;
  int64_t at = 0;   // disk byte
  size_t len = 0;
  uint8_t* user = nullptr;
  std::unique_ptr<AlignedBuffer> bounce;
  int64_t bounceAt = 0;  // disk byte of the bounce buffer's first byte
};

// A request's reply with what the session knew of it, taken together
// under the session's lock.
template <typename T>
struct Asked {
  std::optional<T> reply;
  Clock::time_point sent;  // first sent
  bool replied = false;
  std::string error;
};

class File final : public RemoteFile {
 public:
  File(std::string share, std::string path, FileOptions options)
      : share_(std::move(share)),
        path_(std::move(path)),
        o_(std::move(options)),
        client_(o_.daemon),
        lease_(path_),
        io_(std::max(1u, o_.depth)) {
    o_.ioBytes = std::max<size_t>(RoundUp(static_cast<int64_t>(o_.ioBytes), 4096), 4096);
  }

  ~File() override {
    if (lease_.Close()) Ask([&](Client& c) { return c.Close(lease_.key(), -1); });
    for (const OpenDisk& d : disks_) close(d.fd);
  }

  bool Start(OpenFailure* f) {
    Asked<MapReply> a = Ask([&](Client& c) { return c.Open(share_, path_, OpenOptionsFor()); });
    const std::optional<MapReply>& m = a.reply;
    const Clock::time_point sent = a.sent;
    const std::string what = "opening " + share_ + " " + path_;
    if (!m) return Failed(f, a.replied ? EPROTO : EIO, what + ": " + a.error, 0, !a.replied);
    if (m->result != 0 && m->result != 1)
      return Failed(f, ErrnoOfResult(m->result), what + ": " + ResultText(m->result) +
                        (m->result == SP_RESULT_FILE_NOT_FOUND ? "; the file does not exist" : "") +
                        (m->hasMap && !m->map.text.empty() ? ": " + m->map.text : ""),
                    m->result, false);
    lease_.Take(m->key, sent, m->lease);
    fileCookie_ = m->fileCookie;
    volumeCookie_ = m->volumeCookie;
    if (m->lease == 0) return Failed(f, EPROTO, what + ": the daemon granted no lease", 0, false);
    renewLease_ = o_.leaseMs != 0 ? o_.leaseMs : m->lease;
    if (!m->hasMap || (m->map.vendorStatus != 0 && m->map.vendorStatus != 1))
      return Failed(f, EIO, what + ": no map (library status " +
                                std::to_string(m->map.vendorStatus) + " " + m->map.text + ")",
                    0, false);
    size_ = m->map.fileSize;

    Asked<GetVolumeInfo> av = Ask([&](Client& c) { return c.GetVolumeByCookie(volumeCookie_.data()); });
    const std::optional<GetVolumeInfo>& v = av.reply;
    if (!v) return Failed(f, av.replied ? EPROTO : EIO, "the file's volume: " + av.error, 0, !av.replied);
    if (v->result != 0 || v->vendorStatus != 0)
      return Failed(f, EIO, "the file's volume: " + ResultText(v->result) + " " + v->errorText, v->result,
                    false);
    if (v->disks.empty() || v->disksTruncated)
      return Failed(f, EPROTO, "the file's volume names " + std::to_string(v->nDisks) +
                                   " disks and the reply holds " + std::to_string(v->disks.size()),
                    0, false);
    // Every disk is found, once, before anything may change the file.
    for (size_t i = 0; i < v->disks.size(); ++i) {
      std::string why;
      std::optional<std::string> found = FindDisk(v->disks[i], o_.disks, &why);
      OpenDisk d;
      DiskSlice s;
      if (found && OpenDirect(*found, o_.write, &d, &why)) disks_.push_back(d);
      if (!found || d.fd < 0 || !SliceOf(v->disks[i], v->blockSize, d.bytes, &s, &why))
        return Failed(f, ENODEV, "disk " + std::to_string(i) + " of the volume: " + why, 0, false);
      if (o_.write && v->blockSize % static_cast<int32_t>(d.align) != 0)
        return Failed(f, ENODEV, d.path + " needs direct I/O in units of " +
                                     std::to_string(d.align) + " bytes, which do not divide the " +
                                     "volume's blocks of " + std::to_string(v->blockSize),
                      0, false);
      slices_.push_back(s);
      disksText_ += (i ? "," : "") + d.path;
    }
    std::string why;
    if (!CheckMap(m->map, 0, -1, slices_, &why))
      return Failed(f, EPROTO, what + ": " + why + "; nothing was read or written", 0, false);
    cache_.Add(m->map);
    ++stats_.mapReplies;
    stats_.extents += static_cast<int>(m->map.extents.size());
    lease_.Keep([this](uint32_t key) {
      Asked<MapReply> a = Ask([&](Client& c) { return c.ExtendedMap(key, 0, 1, renewLease_, -1, -1, MapFlag()); });
      KeptLease::Renewal r;
      r.answered = a.reply.has_value();
      r.result = a.reply ? a.reply->result : 0;
      r.lease = a.reply ? a.reply->lease : 0;
      r.sent = a.sent;
      r.error = a.error;
      return r;
    });
    return true;
  }

  int64_t Size() const override { return size_.load(); }

  ssize_t Read(int64_t offset, void* buf, size_t n) override {
    if (offset < 0) return Fail(-EINVAL, "a negative offset");
    const int64_t size = size_.load();
    if (offset >= size || n == 0) return 0;
    n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(n), size - offset));
    auto* out = static_cast<uint8_t*>(buf);
    for (size_t done = 0; done < n;) {
      std::shared_lock<std::shared_mutex> io(ioLock_);
      if (!Alive()) {
        io.unlock();
        if (int e = Recover(); e != 0) return e;
        continue;
      }
      const int64_t from = offset + static_cast<int64_t>(done);
      const int64_t to = from + static_cast<int64_t>(std::min(n - done, RoundBytes()));
      std::vector<MapExtent> pieces;
      if (int e = Pieces(from, to, &pieces); e == -EAGAIN) {
        continue;  // Alive() is false now: the lease is brought back first
      } else if (e != 0) {
        return e;
      }
      std::vector<Part> parts;
      int64_t zeros = 0;
      for (const MapExtent& p : pieces) {
        uint8_t* user = out + (p.logical - offset);
        if (p.validity == FS_VALIDITY_DATA) {
          Split(p, user, &parts);
        } else if (p.validity == FS_VALIDITY_NO_ADDRESS) {
          return Fail(-EIO, Bytes(p.logical, p.logical + p.length) + " of " + path_ +
                                " are not addressable on the disk (shared with another file, "
                                "inline or not yet placed); the file cannot be read there");
        } else {
          std::memset(user, 0, static_cast<size_t>(p.length));
          zeros += p.length;
        }
      }
      if (int e = Transfer(parts, false); e == -EAGAIN) {
        continue;
      } else if (e != 0) {
        return e;
      }
      done += static_cast<size_t>(to - from);
      Moved(to - from - zeros, zeros);
    }
    return static_cast<ssize_t>(n);
  }

  ssize_t Write(int64_t offset, const void* buf, size_t n) override {
    if (!o_.write) return Fail(-EBADF, path_ + " is open for reading");
    int64_t end = 0;
    if (offset < 0 || __builtin_add_overflow(offset, static_cast<int64_t>(n), &end))
      return Fail(-EINVAL, "a write outside the file's range");
    auto* in = const_cast<uint8_t*>(static_cast<const uint8_t*>(buf));
    for (size_t done = 0; done < n;) {
      std::shared_lock<std::shared_mutex> io(ioLock_);
      if (!Alive()) {
        io.unlock();
        if (int e = Recover(); e != 0) return e;
        continue;
      }
      const int64_t from = offset + static_cast<int64_t>(done);
      const int64_t to = from + static_cast<int64_t>(std::min(n - done, RoundBytes()));
      std::vector<MapExtent> pieces;
      if (int e = Writable(from, to, &pieces); e == -EAGAIN) {
        continue;
      } else if (e != 0) {
        return e;
      }
      std::vector<Part> parts;
      for (const MapExtent& p : pieces) Split(p, in + (p.logical - offset), &parts);
      if (int e = Transfer(parts, true); e == -EAGAIN) {
        continue;  // the lease went in between: brought back, then the round again
      } else if (e != 0) {
        return e;
      }
      done += static_cast<size_t>(to - from);
      int64_t size = size_.load();
      while (to > size && !size_.compare_exchange_weak(size, to)) {
      }
      if (to > size) sizeDirty_ = true;
      Moved(to - from, 0);
    }
    return static_cast<ssize_t>(n);
  }

  int Truncate(int64_t size) override {
    if (!o_.write) return Fail(-EBADF, path_ + " is open for reading");
    if (size < 0) return Fail(-EINVAL, "a negative size");
    for (;;) {
      std::unique_lock<std::shared_mutex> io(ioLock_);
      if (!Alive()) {
        io.unlock();
        if (int e = Recover(); e != 0) return e;
        continue;
      }
      const uint32_t key = Key();
      Asked<StatusReply> a = Ask([&](Client& c) { return c.SetSize(key, size, renewLease_); });
      const std::optional<StatusReply>& r = a.reply;
      const Clock::time_point sent = a.sent;
      const std::string what = "setting the size of " + path_ + " to " + std::to_string(size);
      int e = 0;
      if (!r) e = a.replied ? NoAnswer(what, a) : Unanswered(what, a);
      else if (LeaseGone(r->result)) e = Gone(what, r->result);
      else if (r->result != 0) e = Refused(what, r->result);
      if (e == -EAGAIN) continue;
      if (e != 0) return e;
      if (r->lease > 0) lease_.Confirm(sent, r->lease);
      size_ = size;
      sizeDirty_ = false;
      std::lock_guard<std::mutex> m(mapMu_);
      cache_.Clear();
      return 0;
    }
  }

  int Sync() override {
    if (!o_.write) return 0;
    for (const OpenDisk& d : disks_)
      if (fdatasync(d.fd) != 0) return Fail(-errno, "syncing " + d.path + ": " + std::strerror(errno));
    if (sizeDirty_) return Truncate(size_.load());
    return 0;
  }

  int Close() override {
    if (lease_.state() == KeptLease::State::kClosed) return 0;
    const int rc = Sync();
    if (!lease_.Close()) return rc;
    Asked<StatusReply> a = Ask([&](Client& c) { return c.Close(lease_.key(), -1); });
    const std::optional<StatusReply>& r = a.reply;
    if (rc != 0) return rc;
    if (!r) return NoAnswer("closing " + path_, a);
    // A lease already gone at the end leaves nothing undone: the data and
    // the size were in place while it was alive.
    if (r->result != 0 && r->result != SP_RESULT_KEY_NOT_FOUND && r->result != SP_RESULT_LEASE_GONE)
      return Refused("closing " + path_, r->result);
    return 0;
  }

  const std::string& error() const override {
    std::lock_guard<std::mutex> l(statsMu_);
    return error_;
  }

  FileStats stats() const override {
    const uint32_t key = Key();
    std::lock_guard<std::mutex> l(statsMu_);
    FileStats s = stats_;
    s.disk = disksText_;
    s.backend = io_.backend();
    s.key = key;
    s.renewals = lease_.renewals();
    return s;
  }

 private:
  OpenOptions OpenOptionsFor() const {
    OpenOptions oo;
    oo.intention = o_.write ? 0 : 1;
    oo.lease = o_.leaseMs;
    oo.flag = MapFlag();
    return oo;
  }
  uint32_t MapFlag() const { return o_.write ? 0 : kReadOnlyMap; }

  size_t RoundBytes() const { return o_.ioBytes * std::max(1u, o_.depth); }

  bool Failed(OpenFailure* f, int errnum, const std::string& why, int32_t result, bool noReply) {
    f->error = why;
    f->errnum = errnum;
    f->result = result;
    f->noReply = noReply;
    return false;
  }

  int Fail(int e, const std::string& why, int32_t result = 0, bool noReply = false) {
    std::lock_guard<std::mutex> l(statsMu_);
    error_ = why;
    stats_.result = result;
    stats_.noReply = noReply;
    return e;
  }
  template <typename T>
  int NoAnswer(const std::string& what, const Asked<T>& a) {
    return Fail(a.replied ? -EPROTO : -EIO, what + ": " + a.error, 0, !a.replied);
  }

  // Sends one request through the session (one at a time).
  template <typename F>
  auto Ask(F call) -> Asked<typename decltype(call(std::declval<Client&>()))::value_type> {
    std::lock_guard<std::mutex> c(callMu_);
    auto reply = call(client_);
    return {std::move(reply), client_.sentAt(), client_.replied(), client_.error()};
  }
  int Refused(const std::string& what, int32_t result) {
    return Fail(-ErrnoOfResult(result), what + ": " + ResultText(result), result);
  }
  static bool LeaseGone(int32_t result) { return KeptLease::Unknown(result); }
  // A request of a transfer the daemon did not answer: no byte moves until
  // the lease is confirmed again (-EAGAIN: the caller brings it back).
  template <typename T>
  int Unanswered(const std::string& what, const Asked<T>& a) {
    lease_.Unconfirmed(what + ": " + a.error);
    return -EAGAIN;
  }
  // The daemon no longer knows the lease (restarted, or purged it).
  int Gone(const std::string& what, int32_t result) {
    lease_.Lost(what + ": " + ResultText(result) + ", the lease is gone", false);
    return -EAGAIN;
  }

  void Moved(int64_t data, int64_t zeros) {
    int64_t total;
    {
      std::lock_guard<std::mutex> l(statsMu_);
      stats_.dataBytes += data;
      stats_.zeroBytes += zeros;
      total = stats_.dataBytes + stats_.zeroBytes;
    }
    if (!o_.progress) return;
    std::lock_guard<std::mutex> l(progressMu_);  // one call at a time, whatever the threads
    o_.progress(total);
  }

  // ---- the lease ----

  uint32_t Key() const { return lease_.key(); }
  bool Alive() const { return lease_.Alive(); }

  // Brings back a lease that is not known to be alive: renewed when the
  // daemon still holds it, else the file opened again by name. No transfer
  // of this file runs meanwhile. Gives up after giveUpMs without an answer.
  // A failure to bring it back is final: every later call fails the same
  // way at once, instead of each waiting out giveUpMs again.
  int Recover() {
    std::unique_lock<std::shared_mutex> io(ioLock_);
    if (recoverFailed_ != 0) return recoverFailed_;  // error() still says why
    const int e = RecoverLocked();
    if (e != 0 && e != -EBADF) recoverFailed_ = e;
    return e;
  }

  int RecoverLocked() {
    const Clock::time_point giveUp = Clock::now() + Ms(o_.giveUpMs);
    for (;;) {
      const KeptLease::State state = lease_.state();
      if (state == KeptLease::State::kClosed) return Fail(-EBADF, path_ + " is closed");
      if (lease_.Alive()) return 0;
      if (state != KeptLease::State::kLost) {
        lease_.RenewNow();
        if (lease_.Alive()) return 0;
      } else {
        const std::string why = lease_.why();
        if (std::optional<uint32_t> stale = lease_.TakeGiveBack())
          Ask([&](Client& c) { return c.Close(*stale, -1); });
        if (!o_.reopen) return Fail(-ESTALE, why + "; no byte moves without it");
        if (int e = Reopen(why); e != -EAGAIN) return e;
      }
      if (Clock::now() >= giveUp) {
        return Fail(-EIO, lease_.why() + "; gave up after " + std::to_string(o_.giveUpMs) +
                              " ms without an answer from " + client_.peer(),
                    0, true);
      }
      std::this_thread::sleep_for(Ms(kRetryPauseMs));
    }
  }

  // Opens share/path again after the lease was lost: 0 when it is the same
  // file (same file and volume cookies), -EAGAIN when the daemon did not
  // answer, else a failure (-ESTALE for a file that is gone or replaced).
  int Reopen(const std::string& lostWhy) {
    Asked<MapReply> a = Ask([&](Client& c) { return c.Open(share_, path_, OpenOptionsFor()); });
    const std::optional<MapReply>& m = a.reply;
    const Clock::time_point sent = a.sent;
    const std::string what = lostWhy + "; opening " + share_ + " " + path_ + " again";
    if (!m) {
      if (a.replied) return Fail(-EPROTO, what + ": " + a.error);
      return -EAGAIN;
    }
    if (m->result != 0 && m->result != 1)
      return Fail(-ESTALE, what + ": " + ResultText(m->result), m->result);
    std::string why;
    if (m->fileCookie != fileCookie_ || m->volumeCookie != volumeCookie_) {
      why = "another file now has that name";
    } else if (!m->hasMap || m->lease == 0) {
      why = "the reply holds no map or no lease";
    } else if (CheckMap(m->map, 0, -1, slices_, &why)) {
      lease_.Take(m->key, sent, m->lease);
      {
        std::lock_guard<std::mutex> mm(mapMu_);
        cache_.Clear();
        cache_.Add(m->map);
      }
      {
        std::lock_guard<std::mutex> s(statsMu_);
        ++stats_.reopens;
        ++stats_.mapReplies;
      }
      return 0;
    }
    Ask([&](Client& c) { return c.Close(m->key, -1); });
    return Fail(-ESTALE, what + ": " + why + "; nothing more is moved");
  }

  // ---- the map ----

  // Takes a map reply for [from, to) after its checks; the cache then
  // covers what it names. A refused reply fails the transfer.
  int TakeMap(const Asked<MapReply>& a, int64_t from, int64_t to, const std::string& what, bool clear) {
    const std::optional<MapReply>& r = a.reply;
    const Clock::time_point sent = a.sent;
    if (!r) return a.replied ? NoAnswer(what, a) : Unanswered(what, a);
    if (LeaseGone(r->result)) return Gone(what, r->result);
    if (r->result != 0 && r->result != 1) return Refused(what, r->result);
    if (!r->hasMap) return Fail(-EPROTO, what + ": a reply without a map");
    if (r->map.vendorStatus != 0 && r->map.vendorStatus != 1)
      return Fail(-EIO, what + ": library status " + std::to_string(r->map.vendorStatus) + " " + r->map.text);
    std::string why;
    if (!CheckMap(r->map, from, to - from, slices_, &why))
      return Fail(-EPROTO, what + ": " + why + "; nothing of it was moved");
    if (r->result == 0 && r->lease > 0) lease_.Confirm(sent, r->lease);
    {
      std::lock_guard<std::mutex> m(mapMu_);
      if (clear) cache_.Clear();
      cache_.Add(r->map);
    }
    std::lock_guard<std::mutex> s(statsMu_);
    ++stats_.mapReplies;
    stats_.extents += static_cast<int>(r->map.extents.size());
    return 0;
  }

  // The pieces of [from, to): from the cache, the rest asked for; a range
  // past the daemon's end of the file comes as one kBeyondEnd piece.
  int Pieces(int64_t from, int64_t to, std::vector<MapExtent>* out) {
    for (;;) {
      int64_t missing;
      std::vector<MapExtent> have;
      {
        std::lock_guard<std::mutex> m(mapMu_);
        if (cache_.Lookup(from, to, &have, &missing)) {
          *out = std::move(have);
          return 0;
        }
      }
      const uint32_t key = Key();
      const int64_t length = std::min(std::max(to - missing, kMapAhead), INT64_MAX - missing);
      Asked<MapReply> a = Ask([&](Client& c) {
        return c.ExtendedMap(key, missing, length, renewLease_, -1, -1, MapFlag());
      });
      const std::optional<MapReply>& r = a.reply;
      const std::string what = "the map of " + path_ + " from byte " + std::to_string(missing);
      if (int e = TakeMap(a, missing, missing + length, what, false); e != 0) return e;
      if (r->map.fileBytes == 0) {
        if (missing < r->map.fileSize)
          return Fail(-EPROTO, what + " came back empty; the file cannot be covered");
        *out = std::move(have);
        MapExtent beyond;
        beyond.logical = missing;
        beyond.length = to - missing;
        beyond.validity = kBeyondEnd;
        out->push_back(beyond);
        return 0;
      }
    }
  }

  // How far the allocation is asked to reach for a write up to `to`.
  int64_t AllocationTarget(int64_t to) const {
    if (o_.expectedSize >= to) return o_.expectedSize;
    if (to <= size_.load()) return to;  // a hole inside the file: nothing runs ahead
    const int64_t ahead = std::clamp(size_.load() / 2, kMinGrowth, kMaxGrowth);
    return RoundUp(to + ahead, int64_t{1} << 20);
  }

  // The pieces of [from, to), all data on the disk: holes, unwritten and
  // shared ranges and the range past the end are first allocated through
  // the daemon, which may grant less than asked; it is asked again while
  // the allocation grows.
  int Writable(int64_t from, int64_t to, std::vector<MapExtent>* out) {
    int64_t granted = -1;
    bool refusedAhead = false;
    for (;;) {
      if (int e = Pieces(from, to, out); e != 0) return e;
      if (std::all_of(out->begin(), out->end(),
                      [](const MapExtent& p) { return p.validity == FS_VALIDITY_DATA; }))
        return 0;
      // What runs ahead of the data is asked for only while the daemon grants it.
      const int64_t want = refusedAhead ? to : AllocationTarget(to);
      const uint32_t key = Key();
      Asked<MapReply> a =
          Ask([&](Client& c) { return c.ExtendedMap(key, from, to - from, renewLease_, -1, want); });
      const std::optional<MapReply>& r = a.reply;
      {
        std::lock_guard<std::mutex> s(statsMu_);
        ++stats_.allocations;
      }
      sizeDirty_ = true;  // the allocation may have moved the daemon's end of file
      const std::string what = "growing the allocation of " + path_ + " to " + std::to_string(want) + " bytes";
      if (r && r->result != 0 && r->result != 1 && !LeaseGone(r->result) && want > to) {
        refusedAhead = true;
        continue;
      }
      if (int e = TakeMap(a, from, to, what, true); e != 0) return e;
      if (r->map.allocation <= granted)
        return Fail(-ENOSPC, what + ": the daemon granted no more than " +
                                 std::to_string(r->map.allocation) + " bytes");
      granted = r->map.allocation;
    }
  }

  // ---- the transfers ----

  // Cuts a data piece into parts of at most ioBytes at their disk places.
  void Split(const MapExtent& p, uint8_t* user, std::vector<Part>* parts) const {
    const int64_t base = slices_[p.volumeOrdinal].start + p.physical;
    for (int64_t at = 0; at < p.length;) {
      const auto len = static_cast<size_t>(std::min<int64_t>(p.length - at, static_cast<int64_t>(o_.ioBytes)));
      Part part;
      part.disk = p.volumeOrdinal;
      part.at = base + at;
      part.len = len;
      part.user = user + at;
      parts->push_back(std::move(part));
      at += static_cast<int64_t>(len);
    }
  }

  // Moves the parts of one round. Unaligned parts go through bounce
  // buffers; a write's partial units are read first and patched, under a
  // lock so that two writes into one unit do not undo each other.
  int Transfer(std::vector<Part>& parts, bool write) {
    if (parts.empty()) return 0;
    std::vector<DiskIo> reads, writes;
    bool partial = false;
    for (Part& p : parts) {
      const OpenDisk& d = disks_[p.disk];
      const int64_t a = d.align;
      const bool aligned = p.at % a == 0 && static_cast<int64_t>(p.len) % a == 0 &&
                           reinterpret_cast<uintptr_t>(p.user) % a == 0;
      if (aligned) {
        (write ? writes : reads).push_back({d.fd, p.at, p.user, p.len, write});
        continue;
      }
      p.bounceAt = RoundDown(p.at, a);
      const int64_t end = RoundUp(p.at + static_cast<int64_t>(p.len), a);
      p.bounce = std::make_unique<AlignedBuffer>(static_cast<size_t>(end - p.bounceAt));
      if (p.bounce->data() == nullptr) return Fail(-ENOMEM, "no memory for a transfer buffer");
      if (!write) {
        reads.push_back({d.fd, p.bounceAt, p.bounce->data(), p.bounce->size(), false});
        continue;
      }
      // Only the first and last units can hold bytes that are not the caller's.
      const bool head = p.bounceAt < p.at;
      const bool tail = end > p.at + static_cast<int64_t>(p.len) && !(head && end - a == p.bounceAt);
      if (head) reads.push_back({d.fd, p.bounceAt, p.bounce->data(), static_cast<size_t>(a), false});
      if (tail)
        reads.push_back({d.fd, end - a, p.bounce->data() + (end - a - p.bounceAt), static_cast<size_t>(a), false});
      writes.push_back({d.fd, p.bounceAt, p.bounce->data(), p.bounce->size(), true});
      partial = partial || head || tail;
    }
    std::string why;
    if (!write) {
      if (!io_.Run(reads, &why)) return Fail(-EIO, "reading " + path_ + ": " + why);
      for (Part& p : parts)
        if (p.bounce) std::memcpy(p.user, p.bounce->data() + (p.at - p.bounceAt), p.len);
      return 0;
    }
    std::unique_lock<std::mutex> rmw(rmwMu_, std::defer_lock);
    if (partial) rmw.lock();
    if (!io_.Run(reads, &why)) return Fail(-EIO, "reading the partial blocks of " + path_ + ": " + why);
    for (Part& p : parts)
      if (p.bounce) std::memcpy(p.bounce->data() + (p.at - p.bounceAt), p.user, p.len);
    // The lease is looked at once more right before the bytes go out.
    if (!Alive()) return -EAGAIN;
    if (!io_.Run(writes, &why)) return Fail(-EIO, "writing " + path_ + ": " + why);
    return 0;
  }

  const std::string share_, path_;
  FileOptions o_;

  std::mutex callMu_;  // one request to the daemon at a time; innermost lock
  Client client_;

  uint32_t renewLease_ = 0;  // the lease renewals ask for
  KeptLease lease_;

  std::array<uint8_t, FS_COOKIE_SIZE> fileCookie_{}, volumeCookie_{};
  std::vector<OpenDisk> disks_;
  std::vector<DiskSlice> slices_;
  std::string disksText_;

  std::mutex mapMu_;
  MapCache cache_;

  std::atomic<int64_t> size_{0};
  std::atomic<bool> sizeDirty_{false};

  std::shared_mutex ioLock_;  // shared by transfers, exclusive while the lease is brought back
  int recoverFailed_ = 0;     // under ioLock_: how bringing the lease back failed
  std::mutex rmwMu_;
  DirectIo io_;

  std::mutex progressMu_;
  mutable std::mutex statsMu_;
  FileStats stats_;
  std::string error_;
};

}  // namespace

std::unique_ptr<RemoteFile> RemoteFile::Open(const std::string& share, const std::string& path,
                                             const FileOptions& options, OpenFailure* failure) {
  auto file = std::make_unique<File>(share, path, options);
  if (!file->Start(failure)) return nullptr;
  return file;
}

std::unique_ptr<RemoteFile> RemoteFile::Open(const std::string& share, const std::string& path,
                                             const FileOptions& options, std::string* error,
                                             int* errnum) {
  OpenFailure f;
  std::unique_ptr<RemoteFile> file = Open(share, path, options, &f);
  if (!file) {
    if (error != nullptr) *error = f.error;
    if (errnum != nullptr) *errnum = f.errnum;
  }
  return file;
}

}  // namespace kestrix::client
