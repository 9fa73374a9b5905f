// One budget for the request bytes the server holds on behalf of all its connections: requests
// whose fragments are still arriving and complete requests until their call has ended. Without
// it every connection could hold a request of kMaxRequestStub bytes, and a few hundred clients that
// never finish their requests would take gigabytes.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <utility>

namespace kesttcs::dcerpc {

class RequestBudget {
 public:
  explicit RequestBudget(size_t limit) : limit_(limit) {}
  RequestBudget(const RequestBudget&) = delete;
  RequestBudget& operator=(const RequestBudget&) = delete;

  // Takes `bytes` when they fit under the limit; false (nothing taken) when they do not.
  [[nodiscard]] bool Take(size_t bytes) {
    size_t used = used_.load(std::memory_order_relaxed);
    do {
      if (bytes > limit_ - std::min(used, limit_)) return false;
    } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
    return true;
  }
  void Give(size_t bytes) { used_.fetch_sub(bytes, std::memory_order_relaxed); }
  size_t used() const { return used_.load(std::memory_order_relaxed); }

 private:
  const size_t limit_;
  std::atomic<size_t> used_{0};
};

// Bytes taken from a budget, given back when the charge ends (destroyed or moved from).
class BudgetCharge {
 public:
  BudgetCharge() = default;
  explicit BudgetCharge(RequestBudget* budget) : budget_(budget) {}
  BudgetCharge(BudgetCharge&& other) noexcept
      : budget_(other.budget_), bytes_(std::exchange(other.bytes_, 0)) {}
  BudgetCharge& operator=(BudgetCharge&& other) noexcept {
    if (this != &other) {
      Reset();
      budget_ = other.budget_;
      bytes_ = std::exchange(other.bytes_, 0);
    }
    return *this;
  }
  ~BudgetCharge() { Reset(); }

  // Adds `bytes` to the charge; false (the charge unchanged) when the budget has no room.
  [[nodiscard]] bool Add(size_t bytes) {
    if (budget_ == nullptr || !budget_->Take(bytes)) return false;
    bytes_ += bytes;
    return true;
  }
  void Reset() {
    if (budget_ != nullptr && bytes_ != 0) budget_->Give(bytes_);
    bytes_ = 0;
  }
  size_t bytes() const { return bytes_; }

 private:
  RequestBudget* budget_ = nullptr;
  size_t bytes_ = 0;
};

}  // namespace kesttcs::dcerpc
