// The lease's states and its keeper thread.
#include "client/kxlease.h"

#include <algorithm>
#include <utility>

#include "client/kxclient.h"
#include "spmsgs.h"

namespace kestrix::client {

namespace {

using Ms = std::chrono::milliseconds;

constexpr int64_t kRenewGapMs = 2000;  // renewals at least this often, to notice a restart
constexpr int kRetryPauseMs = 200;     // between renewals of an unconfirmed lease

}  // namespace

bool KeptLease::Unknown(int32_t result) {
  return result == SP_RESULT_KEY_NOT_FOUND || result == SP_RESULT_LEASE_NOT_RENEWED;
}

void KeptLease::Take(uint32_t key, Clock::time_point sent, uint32_t lease) {
  {
    std::lock_guard<std::mutex> l(mu_);
    key_ = key;
    ++generation_;
    state_ = State::kHeld;
    renewBase_ = sent;
    granted_ = lease;
    deadline_ = sent + Ms(lease);
    giveBack_ = false;
  }
  cv_.notify_all();
}

void KeptLease::Keep(Renew renew) {
  std::lock_guard<std::mutex> l(mu_);
  renew_ = std::move(renew);
  if (!keeper_.joinable()) keeper_ = std::thread([this] { Run(); });
}

bool KeptLease::Confirm(Clock::time_point sent, uint32_t lease) {
  std::lock_guard<std::mutex> l(mu_);
  if (sent < renewBase_ || state_ == State::kClosed || state_ == State::kLost) return false;
  renewBase_ = sent;
  granted_ = lease;
  deadline_ = sent + Ms(lease);
  state_ = State::kHeld;
  return true;
}

void KeptLease::Unconfirmed(const std::string& why) {
  std::lock_guard<std::mutex> l(mu_);
  if (state_ != State::kHeld) return;
  state_ = State::kUnconfirmed;
  why_ = why;
}

void KeptLease::Lost(const std::string& why, bool giveBack) {
  std::lock_guard<std::mutex> l(mu_);
  if (state_ != State::kHeld && state_ != State::kUnconfirmed) return;
  state_ = State::kLost;
  why_ = why;
  giveBack_ = giveBack;
}

void KeptLease::Apply(uint64_t generation, const Renewal& r) {
  if (r.answered && r.result == 0 && r.lease > 0) {
    if (Confirm(r.sent, r.lease)) {
      std::lock_guard<std::mutex> l(mu_);
      ++renewals_;
    }
    return;
  }
  {
    std::lock_guard<std::mutex> l(mu_);
    if (generation != generation_) return;  // a later lease already
  }
  if (r.answered && r.result != SP_RESULT_LIBRARY_ONE) {
    // A lease the daemon still knows (its library refused, for a local
    // change waiting) is given back at once rather than left to run out.
    Lost("the daemon refused to renew the lease on " + name_ + ": result " +
             std::to_string(r.result) + " (" + ResultName(r.result) + ")",
         !Unknown(r.result));
  } else {
    Unconfirmed("the lease on " + name_ + " could not be renewed: " +
                (r.answered ? std::string("the daemon answered 1 without renewing it") : r.error));
  }
}

void KeptLease::RenewNow() {
  uint32_t key;
  uint64_t generation;
  Renew renew;
  {
    std::lock_guard<std::mutex> l(mu_);
    key = key_;
    generation = generation_;
    renew = renew_;
  }
  if (renew) Apply(generation, renew(key));
}

void KeptLease::Run() {
  std::unique_lock<std::mutex> l(mu_);
  while (!stop_) {
    // A lost lease is taken anew by the file, not renewed.
    if (state_ == State::kLost || state_ == State::kClosed) {
      const State now = state_;
      cv_.wait(l, [&] { return stop_ || state_ != now; });
      continue;
    }
    const uint64_t generation = generation_;
    const Clock::time_point next =
        state_ == State::kHeld ? renewBase_ + Ms(std::min<int64_t>(granted_ / 3, kRenewGapMs))
                               : Clock::now() + Ms(kRetryPauseMs);
    if (cv_.wait_until(l, next, [&] { return stop_ || generation_ != generation; })) continue;
    l.unlock();
    RenewNow();
    l.lock();
  }
}

bool KeptLease::Alive() const {
  std::lock_guard<std::mutex> l(mu_);
  return state_ == State::kHeld && Clock::now() < deadline_;
}

KeptLease::State KeptLease::state() const {
  std::lock_guard<std::mutex> l(mu_);
  return state_;
}

uint32_t KeptLease::key() const {
  std::lock_guard<std::mutex> l(mu_);
  return key_;
}

std::string KeptLease::why() const {
  std::lock_guard<std::mutex> l(mu_);
  return why_;
}

int KeptLease::renewals() const {
  std::lock_guard<std::mutex> l(mu_);
  return renewals_;
}

std::optional<uint32_t> KeptLease::TakeGiveBack() {
  std::lock_guard<std::mutex> l(mu_);
  if (!std::exchange(giveBack_, false)) return std::nullopt;
  return key_;
}

bool KeptLease::Close() {
  Stop();
  std::lock_guard<std::mutex> l(mu_);
  const bool held = state_ == State::kHeld || state_ == State::kUnconfirmed ||
                    (state_ == State::kLost && giveBack_);
  state_ = State::kClosed;
  return held;
}

void KeptLease::Stop() {
  {
    std::lock_guard<std::mutex> l(mu_);
    stop_ = true;
  }
  cv_.notify_all();
  if (keeper_.joinable()) keeper_.join();
}

}  // namespace kestrix::client
