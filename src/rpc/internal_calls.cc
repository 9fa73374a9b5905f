#include "rpc/internal_calls.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "commands/capability.h"
#include "commands/tcsip_keyless.h"
#include "commands/vendor_commands.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "rpc/c_layout.h"
#include "rpc/operations.h"
#include "storage/registered_keys.h"

namespace kesttcs {
namespace {

using rpc::Form;
using rpc::kOperations;

using rpc::CallFrame;
using rpc::CSize;

using InternalCall = TSS_RESULT (*)(CallFrame&);

template <typename T>
using Bare = std::remove_cvref_t<T>;

// Whether a C++ object of type T can stand for one element of the parameter: same size, or bytes
// viewing a byte array.
template <typename T>
constexpr bool FitsElement(const rpc::Param& p) {
  return sizeof(T) == CSize(p.kind);
}

void Release(TCS_CONTEXT_HANDLE hContext, const void* block) {
  if (block != nullptr) (void)ctx_ReleaseMemory(hContext, block);
}

// Releases an output block and the blocks behind the embedded pointers of its structures.
void ReleaseOutput(TCS_CONTEXT_HANDLE hContext, rpc::Kind kind, const void* block, size_t count) {
  if (kind == rpc::Kind::kPcrEvent) {
    const auto* events = static_cast<const TSS_PCR_EVENT*>(block);
    for (size_t i = 0; i < count; ++i) {
      Release(hContext, events[i].rgbPcrValue);
      Release(hContext, events[i].rgbEvent);
    }
  } else if (kind == rpc::Kind::kKeyInfo) {
    const auto* infos = static_cast<const TSS_KM_KEYINFO*>(block);
    for (size_t i = 0; i < count; ++i) Release(hContext, infos[i].rgbVendorData);
  }
  Release(hContext, block);
}

// One argument of operation `Op` while its internal function runs: holds the C form of the frame's
// value, hands it over as the function's parameter type A, and afterwards turns outputs back into
// frame values. Output blocks the function allocated in the context's memory are released once
// copied into the frame: the response carries its own copy.
template <uint16_t Op, size_t I, typename A>
class Holder {
  static constexpr rpc::Param p = kOperations[Op].params[I];

 public:
  Holder(CallFrame& frame) : frame_(frame) {  // NOLINT: built in place inside a tuple
    const rpc::Arg& arg = frame.arg(I);
    if constexpr (p.form == Form::kValue || p.form == Form::kRef || p.form == Form::kUnique) {
      if (p.is_input() && arg.present) rpc::SingleToC(p.kind, arg.value, buf_);
    } else if constexpr (p.form == Form::kArray) {
      c_ = rpc::ArrayToC(p.kind, arg.value);
    } else if constexpr (p.form == Form::kArrayPtr) {
      if (p.is_input() && arg.present) {
        c_ = rpc::ArrayToC(p.kind, arg.value);
        out_ = c_.data();
      }
    }
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  A get() {
    if constexpr (p.form == Form::kValue) {
      if constexpr (std::is_reference_v<A>) {
        static_assert(FitsElement<Bare<A>>(p), "by-reference argument of the wrong size");
        return *reinterpret_cast<Bare<A>*>(buf_);
      } else {
        static_assert(std::is_trivially_copyable_v<A> && FitsElement<A>(p),
                      "by-value argument of the wrong type");
        A v;
        std::memcpy(&v, buf_, sizeof(A));
        return v;
      }
    } else if constexpr (p.form == Form::kRef || p.form == Form::kUnique) {
      static_assert(std::is_pointer_v<A> && FitsElement<Bare<std::remove_pointer_t<A>>>(p),
                    "pointer argument of the wrong type");
      if (p.form == Form::kUnique && !frame_.arg(I).present) return nullptr;
      return reinterpret_cast<A>(buf_);
    } else if constexpr (p.form == Form::kArray) {
      static_assert(std::is_pointer_v<A> && FitsElement<Bare<std::remove_pointer_t<A>>>(p),
                    "array argument of the wrong type");
      // An empty array still gets a valid pointer, as a ref pointer of size 0 does.
      return reinterpret_cast<A>(c_.empty() ? buf_ : c_.data());
    } else {
      using Pointee = std::remove_pointer_t<A>;
      static_assert(std::is_pointer_v<A> && std::is_pointer_v<Pointee> &&
                        FitsElement<Bare<std::remove_pointer_t<Pointee>>>(p),
                    "output pointer argument of the wrong type");
      return reinterpret_cast<A>(&out_);
    }
  }

  void Finish(TCS_CONTEXT_HANDLE hContext) {
    if constexpr (p.is_output()) {
      rpc::Arg& arg = frame_.arg(I);
      if constexpr (p.form == Form::kRef || p.form == Form::kUnique) {
        if (arg.present) arg.value = rpc::SingleFromC(p.kind, buf_);
      } else if constexpr (p.form == Form::kPtr) {
        if (out_ != nullptr) {
          frame_.SetOutput(I, rpc::SingleFromC(p.kind, out_));
          ReleaseOutput(hContext, p.kind, out_, 1);
        }
      } else if constexpr (p.form == Form::kArrayPtr) {
        const std::optional<size_t> size = rpc::SizeParamIndex(kOperations[Op], I);
        size_t count = size ? frame_.u32(*size) : 0;
        if (out_ == nullptr) {
          arg.present = false;
        } else if (!c_.empty() && out_ == c_.data()) {
          count = std::min(count, c_.size() / CSize(p.kind));
          frame_.SetOutput(I, rpc::ArrayFromC(p.kind, out_, count));
        } else {
          frame_.SetOutput(I, rpc::ArrayFromC(p.kind, out_, count));
          ReleaseOutput(hContext, p.kind, out_, count);
        }
      }
    }
  }

 private:
  CallFrame& frame_;
  alignas(8) uint8_t buf_[rpc::kMaxCSize]{};
  std::vector<uint8_t> c_;
  void* out_ = nullptr;
};

template <size_t>
CallFrame& Same(CallFrame& frame) {
  return frame;
}

template <uint16_t Op, typename... A, size_t... I>
TSS_RESULT Apply(TSS_RESULT (*fn)(A...), CallFrame& frame, std::index_sequence<I...>) {
  std::tuple<Holder<Op, I, A>...> holders(Same<I>(frame)...);
  const TSS_RESULT result = fn(std::get<I>(holders).get()...);
  const TCS_CONTEXT_HANDLE hContext =
      kOperations[Op].params[0].is_input() ? frame.u32(0) : TCS_CONTEXT_HANDLE{0};
  (std::get<I>(holders).Finish(hContext), ...);
  return result;
}

template <uint16_t Op, auto Fn>
TSS_RESULT Invoke(CallFrame& frame) {
  return []<typename... A>(TSS_RESULT (*fn)(A...), CallFrame& f) {
    static_assert(sizeof...(A) == kOperations[Op].params.size(),
                  "internal function and operation differ in their parameter count");
    return Apply<Op>(fn, f, std::index_sequence_for<A...>{});
  }(Fn, frame);
}

struct Binding {
  uint16_t opnum;
  InternalCall call;
};

template <uint16_t Op, auto Fn>
constexpr Binding Bind() {
  return Binding{Op, &Invoke<Op, Fn>};
}

// Every internal function the service has, by opnum.
constexpr Binding kBindings[] = {
    Bind<0, &Tcsip_VendorCommand3_Internal>(),
    Bind<1, &Tcsip_VendorCommand2_Internal>(),
    Bind<2, &Tcsip_VendorCommand1_Internal>(),
    Bind<3, &Tcsi_OpenContext_Internal>(),
    Bind<4, &Tcsi_CloseContext_Internal>(),
    Bind<5, &Tcsi_FreeMemory_Internal>(),
    Bind<6, &Tcsi_GetCapability_Internal>(),
    Bind<7, &Tcsi_RegisterKey_Internal>(),
    Bind<8, &Tcsip_UnregisterKey_Internal>(),
    Bind<10, &Tcsi_EnumRegisteredKeys_Internal>(),
    Bind<11, &Tcsi_GetRegisteredKey_Internal>(),
    Bind<12, &Tcsi_GetRegisteredKeyBlob_Internal>(),
    Bind<13, &Tcsip_GetRegisteredKeyByPublicInfo_Internal>(),
    Bind<25, &Tcsip_SetOwnerInstall_Internal>(),
    Bind<39, &Tcsip_Extend_Internal>(),
    Bind<40, &Tcsip_PcrRead_Internal>(),
    Bind<44, &Tcsip_DirRead_Internal>(),
    Bind<56, &Tcsip_GetRandom_Internal>(),
    Bind<57, &Tcsip_StirRandom_Internal>(),
    Bind<58, &Tcsip_GetCapability_Internal>(),
    Bind<61, &Tcsip_CreateEndorsementKeyPair_Internal>(),
    Bind<62, &Tcsip_ReadPubek_Internal>(),
    Bind<65, &Tcsip_SelfTestFull_Internal>(),
    Bind<67, &Tcsip_ContinueSelfTest_Internal>(),
    Bind<68, &Tcsip_GetTestResult_Internal>(),
    Bind<72, &Tcsip_ForceClear_Internal>(),
    Bind<73, &Tcsip_DisableForceClear_Internal>(),
    Bind<74, &Tcsip_PhysicalDisable_Internal>(),
    Bind<75, &Tcsip_PhysicalEnable_Internal>(),
    Bind<76, &Tcsip_PhysicalSetDeactivated_Internal>(),
    Bind<77, &Tcsip_SetTempDeactivated_Internal>(),
    Bind<79, &Tcsip_PhysicalPresence_Internal>(),
    Bind<101, &Tcsip_PcrReset_Internal>(),
    Bind<102, &Tcsip_ReadCounter_Internal>(),
    Bind<107, &Tcsip_TPM_ReadCurrentTicks_Internal>(),
};

constexpr std::array<InternalCall, rpc::kOperationCount> MakeTable() {
  std::array<InternalCall, rpc::kOperationCount> table{};
  for (const Binding& b : kBindings) table[b.opnum] = b.call;
  return table;
}

constexpr bool EachOpnumBoundOnce() {
  for (size_t i = 0; i < std::size(kBindings); ++i) {
    if (kBindings[i].opnum >= rpc::kOperationCount) return false;
    for (size_t j = 0; j < i; ++j) {
      if (kBindings[j].opnum == kBindings[i].opnum) return false;
    }
  }
  return true;
}
static_assert(EachOpnumBoundOnce());

constexpr std::array<InternalCall, rpc::kOperationCount> kTable = MakeTable();

}  // namespace

TSS_RESULT CallInternalFunction(uint16_t opnum, rpc::CallFrame& frame) {
  if (opnum >= kTable.size() || kTable[opnum] == nullptr) return TCS_E_NOTIMPL;
  return kTable[opnum](frame);
}

}  // namespace kesttcs
