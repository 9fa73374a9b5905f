#include "rpc/windows/serve_call.h"

#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
#include <rpcndr.h>

#include <cstring>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "rpc/c_layout.h"
#include "rpc/owned_call.h"
#include "rpc/windows/calling_client.h"

namespace kesttcs {
namespace {

using rpc::Form;
using rpc::Kind;
using rpc::Param;

template <typename T>
T* PointerAt(void* arg) {
  return *static_cast<T**>(arg);
}

size_t ElementsOf(const rpc::CallFrame& frame, size_t index) {
  const std::optional<size_t> size = rpc::SizeParamIndex(frame.op(), index);
  return size ? frame.u32(*size) : 0;
}

// Reads input parameter `index` from the stub's argument at `arg`; false when a required pointer
// is null (the stubs never pass one; the check keeps a wrong table from crashing).
bool PutInput(rpc::CallFrame& frame, size_t index, void* arg) {
  const Param& p = frame.op().params[index];
  rpc::Arg& slot = frame.arg(index);
  switch (p.form) {
    case Form::kValue:
      slot.value = rpc::SingleFromC(p.kind, arg);
      return true;
    case Form::kRef:
    case Form::kUnique: {
      const void* element = PointerAt<void>(arg);
      slot.present = element != nullptr;
      if (element != nullptr && p.is_input()) slot.value = rpc::SingleFromC(p.kind, element);
      return element != nullptr || p.form == Form::kUnique;
    }
    case Form::kArray: {
      const void* elements = PointerAt<void>(arg);
      const size_t count = ElementsOf(frame, index);
      if (elements == nullptr) return count == 0;
      slot.value = rpc::ArrayFromC(p.kind, elements, count);
      return true;
    }
    case Form::kOptPtr:
      // An element a client sends is dropped, as on the wire of the Linux server: only the
      // answer fills it.
      slot.requested = PointerAt<void>(arg) != nullptr;
      return true;
    case Form::kPtr:
    case Form::kArrayPtr: {
      void** pointer = PointerAt<void*>(arg);
      if (pointer == nullptr) return false;
      if (p.form == Form::kArrayPtr && p.dir == rpc::Dir::kInOut) {
        const size_t count = ElementsOf(frame, index);
        slot.present = *pointer != nullptr;
        if (slot.present) slot.value = rpc::ArrayFromC(p.kind, *pointer, count);
        return slot.present || count == 0;
      }
      return true;
    }
  }
  return false;
}

// A copy of `size` bytes at `data` in memory the stubs free; null when memory runs out.
void* MidlCopy(const void* data, size_t size) {
  void* block = midl_user_allocate(size == 0 ? 1 : size);
  if (block != nullptr && size != 0) std::memcpy(block, data, size);
  return block;
}

// One byte array embedded in an output structure: the pointer to it and its length.
struct Embedded {
  BYTE** pointer;
  UINT32 length;
};

// The embedded byte arrays of the `count` C structures of `kind` in `block`.
std::vector<Embedded> EmbeddedArrays(Kind kind, void* block, size_t count) {
  std::vector<Embedded> arrays;
  for (size_t i = 0; i < count; ++i) {
    if (kind == Kind::kPcrEvent) {
      auto& event = static_cast<TSS_PCR_EVENT*>(block)[i];
      arrays.push_back({&event.rgbPcrValue, event.ulPcrValueLength});
      arrays.push_back({&event.rgbEvent, event.ulEventLength});
    } else if (kind == Kind::kKeyInfo) {
      auto& info = static_cast<TSS_KM_KEYINFO*>(block)[i];
      arrays.push_back({&info.rgbVendorData, info.ulVendorDataLength});
    }
  }
  return arrays;
}

// The output value `v` in a new block for the stubs (one element when `single`), each embedded
// byte array in a block of its own, as the stubs free embedded pointers one by one. Null, with
// nothing left allocated, when memory runs out.
void* OutputBlock(Kind kind, const rpc::Value& v, bool single) {
  const std::vector<uint8_t> c = rpc::OutputToC(kind, v, single);
  void* block = MidlCopy(c.data(), c.size());
  if (block == nullptr) return nullptr;
  std::vector<void*> copies;
  for (const Embedded& array : EmbeddedArrays(kind, block, c.size() / rpc::CSize(kind))) {
    if (*array.pointer == nullptr) continue;
    void* copy = MidlCopy(*array.pointer, array.length);
    if (copy == nullptr) {
      for (void* made : copies) midl_user_free(made);
      midl_user_free(block);
      return nullptr;
    }
    copies.push_back(copy);
    *array.pointer = static_cast<BYTE*>(copy);
  }
  return block;
}

// Writes output parameter `index` through the stub's argument at `arg`; false when memory runs
// out.
bool TakeOutput(const rpc::CallFrame& frame, size_t index, void* arg) {
  const Param& p = frame.op().params[index];
  if (!p.is_output() || p.form == Form::kValue || p.form == Form::kArray) return true;
  const rpc::Arg& slot = frame.arg(index);
  if (p.form == Form::kRef || p.form == Form::kUnique) {
    void* element = PointerAt<void>(arg);
    if (element != nullptr && slot.present) rpc::SingleToC(p.kind, slot.value, element);
    return true;
  }
  void** pointer = PointerAt<void*>(arg);
  if (pointer == nullptr) return true;  // a kOptPtr the caller did not pass
  if (!slot.present) {
    *pointer = nullptr;
    return true;
  }
  *pointer = OutputBlock(p.kind, slot.value, p.form != Form::kArrayPtr);
  return *pointer != nullptr;
}

}  // namespace
}  // namespace kesttcs

uint32_t KestTcs_ServeCall(uint16_t opnum, void* const* args) {
  using namespace kesttcs;
  const rpc::Operation* op = rpc::FindOperation(opnum);
  if (op == nullptr || !op->frame.has_handler) return TCS_E_NOTIMPL;
  rpc::CallFrame frame(*op);
  for (size_t i = 0; i < frame.size(); ++i) {
    if (op->params[i].is_input() && !PutInput(frame, i, args[i])) return TCS_E_BAD_PARAMETER;
  }
  const std::optional<ContextOwner> owner = CallingClient();
  const TSS_RESULT result = owner ? RunOwnedCall(*op, frame, *owner) : TCS_E_FAIL;
  // Outputs are written even for a failed call (zero values, null buffers), as the stubs marshal
  // them either way.
  bool written = true;
  for (size_t i = 0; i < frame.size(); ++i) written = TakeOutput(frame, i, args[i]) && written;
  return written ? result : TCS_E_OUTOFMEMORY;
}
