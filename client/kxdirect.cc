// Batches of direct transfers: a ring per concurrent caller (kept for
// reuse) with up to `depth` requests queued, or a thread pool as the
// fallback. Short transfers are continued where they stopped; a transfer
// that makes no progress (the disk's end) fails.
#include "client/kxdirect.h"

#include <liburing.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace kestrix::client {

namespace {

std::string Describe(const DiskIo& io, int err) {
  return std::string(io.write ? "writing " : "reading ") + std::to_string(io.len) +
         " bytes at disk byte " + std::to_string(io.at) + ": " +
         (err == 0 ? "end of the disk" : std::strerror(err));
}

// A transfer in progress: how much of it is done.
struct Pending {
  const DiskIo* io;
  size_t done = 0;
};

class Ring {
 public:
  explicit Ring(unsigned depth) : depth_(depth) { ok_ = io_uring_queue_init(depth, &ring_, 0) == 0; }
  ~Ring() {
    if (ok_) io_uring_queue_exit(&ring_);
  }
  bool ok() const { return ok_ && !broken_; }

  bool Run(const std::vector<DiskIo>& ios, std::string* why) {
    std::vector<Pending> pending(ios.size());
    size_t next = 0, inFlight = 0;
    bool failed = false;
    std::deque<Pending*> resubmit;
    while (next < ios.size() || inFlight > 0 || !resubmit.empty()) {
      while (inFlight < depth_ && !failed && (!resubmit.empty() || next < ios.size())) {
        Pending* p;
        if (!resubmit.empty()) {
          p = resubmit.front();
          resubmit.pop_front();
        } else {
          p = &pending[next];
          p->io = &ios[next++];
        }
        io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
        const DiskIo& io = *p->io;
        if (io.write)
          io_uring_prep_write(sqe, io.fd, io.buf + p->done, static_cast<unsigned>(io.len - p->done),
                              static_cast<uint64_t>(io.at) + p->done);
        else
          io_uring_prep_read(sqe, io.fd, io.buf + p->done, static_cast<unsigned>(io.len - p->done),
                             static_cast<uint64_t>(io.at) + p->done);
        io_uring_sqe_set_data(sqe, p);
        ++inFlight;
      }
      if (failed) next = ios.size();  // nothing new after a failure
      if (inFlight == 0) break;
      int rc = io_uring_submit_and_wait(&ring_, 1);
      if (rc < 0 && rc != -EINTR) {
        *why = std::string("direct I/O: ") + std::strerror(-rc);
        broken_ = true;  // the ring is not used again
        return false;
      }
      io_uring_cqe* cqe;
      unsigned head, seen = 0;
      io_uring_for_each_cqe(&ring_, head, cqe) {
        ++seen;
        --inFlight;
        auto* p = static_cast<Pending*>(io_uring_cqe_get_data(cqe));
        if (cqe->res == -EINTR || cqe->res == -EAGAIN) {
          resubmit.push_back(p);
        } else if (cqe->res <= 0) {
          if (!failed) *why = Describe(*p->io, -cqe->res);
          failed = true;
        } else {
          p->done += static_cast<size_t>(cqe->res);
          if (p->done < p->io->len) resubmit.push_back(p);
        }
      }
      io_uring_cq_advance(&ring_, seen);
      if (failed) resubmit.clear();
    }
    return !failed;
  }

 private:
  io_uring ring_{};
  unsigned depth_;
  bool ok_ = false, broken_ = false;
};

// One transfer done with plain system calls; "" or what went wrong.
std::string Blocking(const DiskIo& io) {
  for (size_t done = 0; done < io.len;) {
    ssize_t n = io.write ? pwrite(io.fd, io.buf + done, io.len - done, io.at + done)
                         : pread(io.fd, io.buf + done, io.len - done, io.at + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Describe(io, n < 0 ? errno : 0);
    done += static_cast<size_t>(n);
  }
  return "";
}

// The threads' work: transfers of batches, each batch counting its own.
class Pool {
 public:
  explicit Pool(unsigned threads) {
    for (unsigned i = 0; i < threads; ++i) workers_.emplace_back([this] { Work(); });
  }
  ~Pool() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    cv_.notify_all();
    for (std::thread& t : workers_) t.join();
  }

  bool Run(const std::vector<DiskIo>& ios, std::string* why) {
    Batch batch;
    batch.left = ios.size();
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (const DiskIo& io : ios) queue_.push_back({&io, &batch});
    }
    cv_.notify_all();
    std::unique_lock<std::mutex> lock(mu_);
    done_.wait(lock, [&] { return batch.left == 0; });
    if (!batch.error.empty()) *why = batch.error;
    return batch.error.empty();
  }

 private:
  struct Batch {
    size_t left = 0;
    std::string error;
  };
  struct Job {
    const DiskIo* io;
    Batch* batch;
  };

  void Work() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      cv_.wait(lock, [&] { return stop_ || !queue_.empty(); });
      if (queue_.empty()) return;
      Job job = queue_.front();
      queue_.pop_front();
      // Once a transfer of the batch failed, the rest are not started.
      if (job.batch->error.empty()) {
        lock.unlock();
        std::string error = Blocking(*job.io);
        lock.lock();
        if (!error.empty() && job.batch->error.empty()) job.batch->error = error;
      }
      if (--job.batch->left == 0) done_.notify_all();
    }
  }

  std::mutex mu_;
  std::condition_variable cv_, done_;
  std::deque<Job> queue_;
  std::vector<std::thread> workers_;
  bool stop_ = false;
};

}  // namespace

struct DirectIo::Impl {
  unsigned depth;
  bool threads = false;
  std::mutex mu;
  std::vector<std::unique_ptr<Ring>> idle;  // rings not used by a caller now
  std::unique_ptr<Pool> pool;
};

DirectIo::DirectIo(unsigned depth) : impl_(std::make_unique<Impl>()) {
  impl_->depth = std::max(1u, depth);
  const char* choice = std::getenv("KESTRIX_IO");
  auto ring = std::make_unique<Ring>(impl_->depth);
  if ((choice != nullptr && std::strcmp(choice, "threads") == 0) || !ring->ok()) {
    impl_->threads = true;
    impl_->pool = std::make_unique<Pool>(impl_->depth);
  } else {
    impl_->idle.push_back(std::move(ring));
  }
}

DirectIo::~DirectIo() = default;

const char* DirectIo::backend() const { return impl_->threads ? "threads" : "io_uring"; }

bool DirectIo::Run(const std::vector<DiskIo>& ios, std::string* why) {
  if (ios.empty()) return true;
  if (impl_->threads) return impl_->pool->Run(ios, why);
  std::unique_ptr<Ring> ring;
  {
    std::lock_guard<std::mutex> lock(impl_->mu);
    if (!impl_->idle.empty()) {
      ring = std::move(impl_->idle.back());
      impl_->idle.pop_back();
    }
  }
  if (!ring) ring = std::make_unique<Ring>(impl_->depth);
  if (!ring->ok()) {  // no second ring: this batch goes one by one
    for (const DiskIo& io : ios)
      if (std::string e = Blocking(io); !e.empty()) return (*why = e, false);
    return true;
  }
  const bool ok = ring->Run(ios, why);
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (ring->ok()) impl_->idle.push_back(std::move(ring));
  return ok;
}

AlignedBuffer::~AlignedBuffer() { std::free(data_); }

void AlignedBuffer::Resize(size_t bytes) {
  if (bytes == size_) return;
  std::free(data_);
  data_ = nullptr;
  size_ = 0;
  if (bytes == 0) return;
  const size_t rounded = (bytes + 4095) / 4096 * 4096;
  data_ = static_cast<uint8_t*>(std::aligned_alloc(4096, rounded));
  if (data_ != nullptr) size_ = bytes;
}

}  // namespace kestrix::client
