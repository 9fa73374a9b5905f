#include "core_fixture.h"

#include <array>
#include <fstream>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "service/startup.h"
#include "tpm/driver.h"
#include "tpm12/marshal.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;

// A successful capability answer: the answer's size, then its bytes.
Bytes CapabilityAnswer(Bytes bytes) {
  std::array<BYTE, 4> size;
  UINT32ToArray(static_cast<UINT32>(bytes.size()), size);
  bytes.insert(bytes.begin(), size.begin(), size.end());
  return FakeTpmBackend::Response(TPM_SUCCESS, bytes);
}

Bytes NumberAnswer(UINT32 number) {
  std::array<BYTE, 4> bytes;
  UINT32ToArray(number, bytes);
  return CapabilityAnswer(Bytes(bytes.begin(), bytes.end()));
}

// The fuzz backend's stream: each answer as its 2-byte length and its bytes, then `input`.
Bytes FuzzStream(std::span<const BYTE> input) {
  Bytes stream;
  for (const Bytes& answer : StartupAnswers()) {
    stream.push_back(static_cast<BYTE>(answer.size() >> 8));
    stream.push_back(static_cast<BYTE>(answer.size()));
    stream.insert(stream.end(), answer.begin(), answer.end());
  }
  stream.insert(stream.end(), input.begin(), input.end());
  return stream;
}

// The home's tcs_cfg.ini with the settings that differ from the defaults, and always a socket of
// the home's own, so that cores of tests running side by side do not meet at the socket's lock.
void WriteConfiguration(const std::string& home, const CoreOptions& options) {
  std::ofstream config(home + "/tcs_cfg.ini");
  config << "[RPC]\nsocket=" << home << "/KestTCS\n";
  if (options.needLog) config << "[LOG]\nneedLog=1\n";
  if (!options.backendConfig.empty()) config << "[TPM]\nbackend=" << options.backendConfig << "\n";
}

}  // namespace

std::vector<Bytes> StartupAnswers() { return StartupAnswers(16); }

std::vector<Bytes> StartupAnswers(UINT32 authSessions, bool owned) {
  return {
      FakeTpmBackend::Response(TPM_SUCCESS),                         // ContinueSelfTest
      CapabilityAnswer({'I', 'B', 'M', 0}),                          // manufacturer
      CapabilityAnswer({0x00, 0x30, 1, 2, 0, 0, 0x00, 0x02, 0x03}),  // TPM_CAP_VERSION_INFO
      CapabilityAnswer({1}),                                         // TPM_SaveContext supported
      CapabilityAnswer({BYTE(owned ? 1 : 0)}),                       // owner or none
      NumberAnswer(24),                                              // PCRs
      NumberAnswer(1),                                               // DIRs
      NumberAnswer(20),                                              // key slots
      NumberAnswer(authSessions),                                    // authorisation sessions
  };
}

TestCore::TestCore(CoreOptions options) : home_(std::move(options.home)) {
  if (home_.empty()) home_ = ownHome_.emplace().path();
  SetTraceSink([this](std::string_view line) {
    std::lock_guard<std::mutex> lock(mu_);
    traces_.emplace_back(line);
  });
  WriteConfiguration(home(), options);
  if (!options.backendConfig.empty()) return;  // start-up binds the backend the file names
  if (options.fuzzInput) {
    fuzzStream_ = FuzzStream(*options.fuzzInput);
    backend_ = std::make_unique<FuzzTpmBackend>(fuzzStream_);
  } else {
    auto fake = std::make_unique<FakeTpmBackend>();
    for (Bytes& answer : StartupAnswers(options.authSessions, options.owned)) {
      fake->Expect({std::move(answer), TSS_SUCCESS, std::nullopt});
    }
    fake_ = fake.get();
    backend_ = std::move(fake);
  }
}

TestCore::~TestCore() {
  Stop();
  ResetLogging();
}

TSS_RESULT TestCore::Start() {
  started_ = true;
  const TSS_RESULT result = KestTcs_startup({.home = home(), .backend = std::move(backend_)});
  if (fake_ != nullptr) sentAtStart_ = fake_->Sent().size();
  return result;
}

void TestCore::Stop() {
  if (!std::exchange(started_, false)) return;
  kesttcs_shutdown();
  // The binding outlives shut-down in the service, whose process ends right after.
  driver_unbind();
  fake_ = nullptr;
}

std::vector<Bytes> TestCore::SentAfterStart() const {
  std::vector<Bytes> sent = fake_->Sent();
  sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(sentAtStart_));
  return sent;
}

std::vector<UINT32> TestCore::OrdinalsAfterStart() const {
  std::vector<UINT32> ordinals;
  for (const Bytes& command : SentAfterStart())
    ordinals.push_back(FakeTpmBackend::OrdinalOf(command));
  return ordinals;
}

std::vector<std::string> TestCore::Traces() const {
  std::lock_guard<std::mutex> lock(mu_);
  return traces_;
}

std::vector<std::string> TestCore::TakeTraces() {
  std::lock_guard<std::mutex> lock(mu_);
  return std::exchange(traces_, {});
}

}  // namespace kesttcs::testing
