// The lease on one open remote file as this client knows it, and the keeper
// thread that renews it. The lease is alive until the time the request that
// last renewed it was first sent plus the lease granted in the reply; the
// keeper renews at a third of the lease, and at least every 2 s so that a
// daemon that lost its leases (a restart) is noticed soon. A renewal the
// daemon refuses makes the lease lost, one it does not answer unconfirmed:
// either way Alive() is false until it is confirmed or taken anew.
#ifndef KESTRIX_CLIENT_KXLEASE_H_
#define KESTRIX_CLIENT_KXLEASE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kestrix::client {

class KeptLease {
 public:
  using Clock = std::chrono::steady_clock;
  // kClosed: none held, before the first Take and after Close.
  enum class State { kHeld, kUnconfirmed, kLost, kClosed };

  // What one renewal request came to.
  struct Renewal {
    bool answered = false;  // a reply of the right kind came
    int32_t result = 0;
    uint32_t lease = 0;
    Clock::time_point sent;  // when the request was first sent
    std::string error;       // why no reply came
  };
  using Renew = std::function<Renewal(uint32_t key)>;

  explicit KeptLease(std::string name) : name_(std::move(name)) {}
  ~KeptLease() { Stop(); }
  KeptLease(const KeptLease&) = delete;
  KeptLease& operator=(const KeptLease&) = delete;

  // A lease granted by an open, the first or one after a loss, whose request
  // was first sent at `sent`: held from now on under this key.
  void Take(uint32_t key, Clock::time_point sent, uint32_t lease);
  // Starts the keeper, which renews through `renew`.
  void Keep(Renew renew);
  // A reply to a request first sent at `sent` renewed the lease; false when
  // it came too late to count (a later one counted, or the lease is lost).
  bool Confirm(Clock::time_point sent, uint32_t lease);
  // A request went unanswered: the lease may be gone.
  void Unconfirmed(const std::string& why);
  // The daemon no longer holds the lease or refused to renew it; giveBack:
  // it still knows the key, which is then to be closed (TakeGiveBack).
  void Lost(const std::string& why, bool giveBack);
  // Renews once now and takes in what came back.
  void RenewNow();

  bool Alive() const;
  State state() const;
  uint32_t key() const;
  std::string why() const;  // why it is not held
  int renewals() const;
  // The key of a refused lease the daemon still knows, once.
  std::optional<uint32_t> TakeGiveBack();
  // Stops the keeper and ends the lease here; true when the daemon may still
  // hold it, so that it is to be closed there.
  bool Close();
  void Stop();

  // Results by which the daemon says it does not know the key.
  static bool Unknown(int32_t result);

 private:
  void Run();
  void Apply(uint64_t generation, const Renewal& r);

  const std::string name_;  // the file, for messages
  mutable std::mutex mu_;
  std::condition_variable cv_;
  State state_ = State::kClosed;
  uint32_t key_ = 0, granted_ = 0;
  uint64_t generation_ = 0;  // counts the leases taken
  Clock::time_point renewBase_{}, deadline_{};
  std::string why_;
  bool giveBack_ = false, stop_ = false;
  int renewals_ = 0;
  Renew renew_;
  std::thread keeper_;
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXLEASE_H_
