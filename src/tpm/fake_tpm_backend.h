// Backends for tests that cannot use a real TPM: a scripted fake (a queue of expected exchanges,
// each answered with canned bytes or a driver failure, recording everything sent) and a fuzz
// backend (answers with bytes taken from a fuzzer's input). Both keep the state rules of
// tpm_backend.h.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tpm/tpm_backend.h"

namespace kesttcs {

// One scripted exchange: the answer to the next command. When `expect_ordinal` is set and the
// command carries another ordinal, the fake fails the exchange with kDriverFail and records the
// mismatch.
struct ScriptedExchange {
  std::vector<BYTE> response;
  TSS_RESULT driver_result = TSS_SUCCESS;
  std::optional<UINT32> expect_ordinal;
};

class FakeTpmBackend final : public TpmBackend {
 public:
  // Queues the answer to the next unanswered command.
  void Expect(ScriptedExchange exchange) {
    std::lock_guard<std::mutex> lock(mu_);
    script_.push_back(std::move(exchange));
  }
  // Queues a bare response: tag 0x00C4, the return code, then `body`.
  void Respond(UINT32 returnCode, std::vector<BYTE> body = {}) {
    Expect({Response(returnCode, body), TSS_SUCCESS, std::nullopt});
  }
  // Queues a driver failure.
  void Fail(TSS_RESULT driverResult) { Expect({{}, driverResult, std::nullopt}); }

  static std::vector<BYTE> Response(UINT32 returnCode, std::span<const BYTE> body = {}) {
    std::vector<BYTE> r(10);
    UINT32 size = static_cast<UINT32>(10 + body.size());
    r[1] = 0xC4;
    for (int i = 0; i < 4; ++i) {
      r[2 + i] = static_cast<BYTE>(size >> (24 - 8 * i));
      r[6 + i] = static_cast<BYTE>(returnCode >> (24 - 8 * i));
    }
    r.insert(r.end(), body.begin(), body.end());
    return r;
  }

  // Everything transmitted so far, one entry per exchange (retries included).
  std::vector<std::vector<BYTE>> Sent() const {
    std::lock_guard<std::mutex> lock(mu_);
    return sent_;
  }
  // The ordinal (UINT32 at offset 6) of each command sent.
  std::vector<UINT32> SentOrdinals() const {
    std::vector<UINT32> ordinals;
    for (const auto& command : Sent()) ordinals.push_back(OrdinalOf(command));
    return ordinals;
  }
  size_t Unanswered() const {
    std::lock_guard<std::mutex> lock(mu_);
    return script_.size();
  }
  std::vector<std::string> Mismatches() const {
    std::lock_guard<std::mutex> lock(mu_);
    return mismatches_;
  }
  int cancels() const {
    std::lock_guard<std::mutex> lock(mu_);
    return cancels_;
  }
  bool is_open() const {
    std::lock_guard<std::mutex> lock(mu_);
    return open_;
  }
  // Makes the next Open() fail with `result`.
  void FailOpen(TSS_RESULT result) {
    std::lock_guard<std::mutex> lock(mu_);
    open_result_ = result;
  }

  TSS_RESULT Open() override {
    std::lock_guard<std::mutex> lock(mu_);
    if (open_) return kDriverAlreadyOpened;
    if (open_result_ != TSS_SUCCESS) {
      SetLastError("scripted open failure");
      return std::exchange(open_result_, TSS_SUCCESS);
    }
    open_ = true;
    return TSS_SUCCESS;
  }
  TSS_RESULT Close() override {
    std::lock_guard<std::mutex> lock(mu_);
    if (!open_) return kDriverAlreadyClosed;
    open_ = false;
    return TSS_SUCCESS;
  }
  TSS_RESULT Transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    std::lock_guard<std::mutex> lock(mu_);
    *outLen = 0;
    if (!open_) return kDriverNotOpen;
    sent_.emplace_back(in.begin(), in.end());
    if (script_.empty()) {
      mismatches_.push_back("unscripted command, ordinal " + std::to_string(OrdinalOf(in)));
      return kDriverFail;
    }
    ScriptedExchange next = std::move(script_.front());
    script_.pop_front();
    if (next.expect_ordinal && *next.expect_ordinal != OrdinalOf(in)) {
      mismatches_.push_back("expected ordinal " + std::to_string(*next.expect_ordinal) + ", got " +
                            std::to_string(OrdinalOf(in)));
      return kDriverFail;
    }
    if (next.driver_result != TSS_SUCCESS) return next.driver_result;
    if (next.response.size() > out.size()) return kDriverInsufficientBuffer;
    std::copy(next.response.begin(), next.response.end(), out.begin());
    *outLen = static_cast<UINT32>(next.response.size());
    return TSS_SUCCESS;
  }
  TSS_RESULT Cancel() override {
    std::lock_guard<std::mutex> lock(mu_);
    ++cancels_;
    return open_ ? TSS_SUCCESS : kDriverNotOpen;
  }
  std::string Describe() const override { return "fake"; }

  static UINT32 OrdinalOf(std::span<const BYTE> command) {
    if (command.size() < 10) return 0;
    return (UINT32{command[6]} << 24) | (UINT32{command[7]} << 16) | (UINT32{command[8]} << 8) |
           command[9];
  }

 private:
  mutable std::mutex mu_;
  std::deque<ScriptedExchange> script_;
  std::vector<std::vector<BYTE>> sent_;
  std::vector<std::string> mismatches_;
  TSS_RESULT open_result_ = TSS_SUCCESS;
  int cancels_ = 0;
  bool open_ = false;
};

// Answers every command from a byte stream: a 2-byte length (big-endian, capped at the buffer),
// then that many response bytes. When the stream runs out every exchange fails with
// kDriverIoError, so a fuzzed TPM_RETRY loop always ends.
class FuzzTpmBackend final : public TpmBackend {
 public:
  // Borrows `stream`, which must outlive the backend.
  explicit FuzzTpmBackend(std::span<const BYTE> stream) : stream_(stream) {}

  TSS_RESULT Open() override {
    if (open_) return kDriverAlreadyOpened;
    open_ = true;
    return TSS_SUCCESS;
  }
  TSS_RESULT Close() override {
    if (!open_) return kDriverAlreadyClosed;
    open_ = false;
    return TSS_SUCCESS;
  }
  TSS_RESULT Transmit(std::span<const BYTE> /*in*/, std::span<BYTE> out, UINT32* outLen,
                      UINT32 /*priority*/) override {
    *outLen = 0;
    if (!open_) return kDriverNotOpen;
    if (stream_.size() < 2) return kDriverIoError;
    size_t length = std::min<size_t>((size_t{stream_[0]} << 8) | stream_[1], out.size());
    stream_ = stream_.subspan(2);
    length = std::min(length, stream_.size());
    std::memcpy(out.data(), stream_.data(), length);
    stream_ = stream_.subspan(length);
    *outLen = static_cast<UINT32>(length);
    return TSS_SUCCESS;
  }
  TSS_RESULT Cancel() override { return open_ ? TSS_SUCCESS : kDriverNotOpen; }
  std::string Describe() const override { return "fuzz"; }

 private:
  std::span<const BYTE> stream_;
  bool open_ = false;
};

}  // namespace kesttcs
