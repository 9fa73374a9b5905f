// The generic client proxy: turns the C arguments of one operation into an argument frame, makes
// the call over the calling thread's connection, and writes the outputs back through the caller's
// pointers. Output buffers are allocated here (one block per output, structures with their
// embedded data in the same block) and tracked so that Tcs_FreeBuffer and Tcsi_FreeMemory free
// exactly what the library handed out.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include "rpc/c_layout.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"

namespace kesttcs::client {

// Sends `frame` as operation `op` and reads the response into it. Returns the operation's result,
// or TCS_E_COMM_FAILURE when no connection can be made, the connection drops, the service answers
// with a fault or an answer that does not fit (Tcs_LastRpcStatus tells which), or
// TCS_E_BAD_PARAMETER when the arguments cannot be marshalled.
TSS_RESULT CallRemote(const rpc::Operation& op, rpc::CallFrame& frame);

// A new block holding the output value `v` of `kind` in C layout (an array, or a single element
// when `single`), owned by the caller and recorded for `hContext`. Null when memory runs out.
void* AllocateOutput(TCS_CONTEXT_HANDLE hContext, rpc::Kind kind, const rpc::Value& v, bool single);

template <uint16_t Op, size_t I, typename A>
bool PutInput(rpc::CallFrame& frame, A arg) {
  constexpr rpc::Param p = rpc::kOperations[Op].params[I];
  rpc::Arg& slot = frame.arg(I);
  if constexpr (p.form == rpc::Form::kValue) {
    if constexpr (std::is_integral_v<A>) {
      slot.value = static_cast<uint64_t>(arg);
    } else {
      slot.value = rpc::SingleFromC(p.kind, &arg);
    }
    return true;
  } else if constexpr (p.form == rpc::Form::kRef || p.form == rpc::Form::kUnique) {
    if (arg == nullptr) {
      slot.present = false;
      return p.form == rpc::Form::kUnique;
    }
    if (p.is_input()) slot.value = rpc::SingleFromC(p.kind, arg);
    return true;
  } else if constexpr (p.form == rpc::Form::kArray) {
    const std::optional<size_t> size = rpc::SizeParamIndex(rpc::kOperations[Op], I);
    const uint32_t count = size ? frame.u32(*size) : 0;
    if (arg == nullptr) return count == 0;
    slot.value = rpc::ArrayFromC(p.kind, arg, count);
    return true;
  } else if constexpr (p.form == rpc::Form::kOptPtr) {
    slot.requested = arg != nullptr;
    return true;
  } else {
    if (arg == nullptr) return false;
    if constexpr (p.form == rpc::Form::kArrayPtr && p.dir == rpc::Dir::kInOut) {
      const std::optional<size_t> size = rpc::SizeParamIndex(rpc::kOperations[Op], I);
      const uint32_t count = size ? frame.u32(*size) : 0;
      slot.present = *arg != nullptr;
      if (slot.present) slot.value = rpc::ArrayFromC(p.kind, *arg, count);
      if (!slot.present && count != 0) return false;
    }
    return true;
  }
}

template <uint16_t Op, size_t I, typename A>
bool TakeOutput(rpc::CallFrame& frame, A arg, TCS_CONTEXT_HANDLE hContext) {
  constexpr rpc::Param p = rpc::kOperations[Op].params[I];
  if constexpr (!p.is_output() || p.form == rpc::Form::kValue || p.form == rpc::Form::kArray) {
    return true;
  } else {
    const rpc::Arg& slot = frame.arg(I);
    if constexpr (p.form == rpc::Form::kRef || p.form == rpc::Form::kUnique) {
      if (arg != nullptr && slot.present) rpc::SingleToC(p.kind, slot.value, arg);
      return true;
    } else {
      using Element = std::remove_pointer_t<std::remove_pointer_t<A>>;
      if (arg == nullptr) return true;  // a kOptPtr the caller did not pass
      if (!slot.present) {
        *arg = nullptr;
        return true;
      }
      *arg = static_cast<Element*>(AllocateOutput(
          hContext, p.kind, slot.value, p.form == rpc::Form::kPtr || p.form == rpc::Form::kOptPtr));
      return *arg != nullptr;
    }
  }
}

template <uint16_t Op, typename... A, size_t... I>
TSS_RESULT InvokeIndexed(std::index_sequence<I...>, A... args) {
  const rpc::Operation& op = rpc::kOperations[Op];
  rpc::CallFrame frame(op);
  bool ok = true;
  ((ok = ok && PutInput<Op, I>(frame, args)), ...);
  if (!ok) return TCS_E_BAD_PARAMETER;
  const TSS_RESULT result = CallRemote(op, frame);
  // Outputs are written even for a failed call (zero values, null buffers when nothing came).
  const TCS_CONTEXT_HANDLE hContext = frame.u32(0);
  ((ok = TakeOutput<Op, I>(frame, args, hContext) && ok), ...);
  return ok ? result : TCS_E_OUTOFMEMORY;
}

// The proxy of operation Op; A... are the C parameter types of its declaration, checked here
// against the operation table.
template <uint16_t Op, typename... A>
TSS_RESULT Invoke(A... args) {
  static_assert(sizeof...(A) == rpc::kOperations[Op].params.size());
  return InvokeIndexed<Op>(std::index_sequence_for<A...>{}, args...);
}

}  // namespace kesttcs::client
