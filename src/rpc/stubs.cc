#include "rpc/stubs.h"

#include <type_traits>

namespace kesttcs::rpc {
namespace {

using dcerpc::NdrReader;
using dcerpc::NdrWriter;

constexpr bool IsScalar(Kind kind) {
  return kind == Kind::kUint32 || kind == Kind::kUint16 || kind == Kind::kByte ||
         kind == Kind::kBool || kind == Kind::kUint64;
}

// The table only has arrays of bytes, of 32-bit values and of the two structures with data; the
// codec handles exactly those.
consteval bool ArrayKindsAreSupported() {
  for (const Operation& op : kOperations) {
    for (const Param& p : op.params) {
      if (p.form != Form::kArray && p.form != Form::kArrayPtr) continue;
      if (p.kind != Kind::kByte && p.kind != Kind::kBool && p.kind != Kind::kUint32 &&
          p.kind != Kind::kPcrEvent && p.kind != Kind::kKeyInfo) {
        return false;
      }
    }
  }
  return true;
}
static_assert(ArrayKindsAreSupported());

// The fewest bytes one array element takes on the wire, for checking counts against the data.
constexpr size_t MinWireSize(Kind kind) {
  switch (kind) {
    case Kind::kUint32:
      return 4;
    case Kind::kPcrEvent:
      return 28;
    case Kind::kKeyInfo:
      return 48;
    default:
      return 1;
  }
}

// ---- Fixed structures ----

bool ReadRaw(NdrReader& r, void* out, size_t n) {
  return r.ReadFixed(std::span<uint8_t>(static_cast<uint8_t*>(out), n));
}
void WriteRaw(NdrWriter& w, const void* in, size_t n) {
  w.WriteBytes(std::span<const uint8_t>(static_cast<const uint8_t*>(in), n));
}

bool Read(NdrReader& r, TPM_DIGEST& d) { return ReadRaw(r, &d, sizeof(d)); }
void Write(NdrWriter& w, const TPM_DIGEST& d) { WriteRaw(w, &d, sizeof(d)); }

bool Read(NdrReader& r, TPM_VERSION& v) { return ReadRaw(r, &v, sizeof(v)); }
void Write(NdrWriter& w, const TPM_VERSION& v) { WriteRaw(w, &v, sizeof(v)); }

bool Read(NdrReader& r, TSS_VERSION& v) { return ReadRaw(r, &v, sizeof(v)); }
void Write(NdrWriter& w, const TSS_VERSION& v) { WriteRaw(w, &v, sizeof(v)); }

bool Read(NdrReader& r, TSS_UUID& u) {
  return r.ReadUint32(u.ulTimeLow) && r.ReadUint16(u.usTimeMid) && r.ReadUint16(u.usTimeHigh) &&
         r.ReadUint8(u.bClockSeqHigh) && r.ReadUint8(u.bClockSeqLow) &&
         ReadRaw(r, u.rgbNode, sizeof(u.rgbNode));
}
void Write(NdrWriter& w, const TSS_UUID& u) {
  w.WriteUint32(u.ulTimeLow);
  w.WriteUint16(u.usTimeMid);
  w.WriteUint16(u.usTimeHigh);
  w.WriteUint8(u.bClockSeqHigh);
  w.WriteUint8(u.bClockSeqLow);
  WriteRaw(w, u.rgbNode, sizeof(u.rgbNode));
}

bool Read(NdrReader& r, TPM_AUTH& a) {
  return r.ReadUint32(a.AuthHandle) && ReadRaw(r, &a.NonceOdd, sizeof(a.NonceOdd)) &&
         ReadRaw(r, &a.NonceEven, sizeof(a.NonceEven)) && r.ReadUint8(a.fContinueAuthSession) &&
         ReadRaw(r, &a.HMAC, sizeof(a.HMAC));
}
void Write(NdrWriter& w, const TPM_AUTH& a) {
  w.WriteUint32(a.AuthHandle);
  WriteRaw(w, &a.NonceOdd, sizeof(a.NonceOdd));
  WriteRaw(w, &a.NonceEven, sizeof(a.NonceEven));
  w.WriteUint8(a.fContinueAuthSession);
  WriteRaw(w, &a.HMAC, sizeof(a.HMAC));
}

bool Read(NdrReader& r, TCS_LOADKEY_INFO& k) {
  return Read(r, k.keyUUID) && Read(r, k.parentKeyUUID) && Read(r, k.paramDigest) &&
         Read(r, k.authData);
}
void Write(NdrWriter& w, const TCS_LOADKEY_INFO& k) {
  Write(w, k.keyUUID);
  Write(w, k.parentKeyUUID);
  Write(w, k.paramDigest);
  Write(w, k.authData);
}

bool Read(NdrReader& r, TPM_COUNTER_VALUE& c) {
  return r.ReadUint16(c.tag) && ReadRaw(r, c.label, sizeof(c.label)) && r.ReadUint32(c.counter);
}
void Write(NdrWriter& w, const TPM_COUNTER_VALUE& c) {
  w.WriteUint16(c.tag);
  WriteRaw(w, c.label, sizeof(c.label));
  w.WriteUint32(c.counter);
}

bool Read(NdrReader& r, TPM_CMK_AUTH& c) {
  return Read(r, c.migrationAuthorityDigest) && Read(r, c.destinationKeyDigest) &&
         Read(r, c.sourceKeyDigest);
}
void Write(NdrWriter& w, const TPM_CMK_AUTH& c) {
  Write(w, c.migrationAuthorityDigest);
  Write(w, c.destinationKeyDigest);
  Write(w, c.sourceKeyDigest);
}

// ---- Structures with data: the fixed part, then (deferred) the data ----

bool ReadDeferredBytes(NdrReader& r, uint32_t length, std::optional<Bytes>& data) {
  if (!data) return true;
  uint32_t count = 0;
  if (!r.ReadArrayCount(count, 1)) return false;
  if (count != length) return r.Fail();
  return r.ReadBytes(count, *data);
}
bool WriteDeferredBytes(NdrWriter& w, uint32_t length, const std::optional<Bytes>& data) {
  if (!data) return true;
  if (data->size() != length) return false;
  w.WriteConformantBytes(*data);
  return true;
}
// The fixed part records presence by making the optional hold an empty vector.
bool ReadPointer(NdrReader& r, std::optional<Bytes>& data) {
  bool present = false;
  if (!r.ReadUniquePointer(present)) return false;
  data = present ? std::optional<Bytes>(Bytes()) : std::nullopt;
  return true;
}

bool ReadFixedPart(NdrReader& r, PcrEvent& e) {
  return r.Align(4) && Read(r, e.versionInfo) && r.ReadUint32(e.ulPcrIndex) &&
         r.ReadUint32(e.eventType) && r.ReadUint32(e.ulPcrValueLength) &&
         ReadPointer(r, e.rgbPcrValue) && r.ReadUint32(e.ulEventLength) &&
         ReadPointer(r, e.rgbEvent);
}
bool ReadDeferred(NdrReader& r, PcrEvent& e) {
  return ReadDeferredBytes(r, e.ulPcrValueLength, e.rgbPcrValue) &&
         ReadDeferredBytes(r, e.ulEventLength, e.rgbEvent);
}
void WriteFixedPart(NdrWriter& w, const PcrEvent& e) {
  w.Align(4);
  Write(w, e.versionInfo);
  w.WriteUint32(e.ulPcrIndex);
  w.WriteUint32(e.eventType);
  w.WriteUint32(e.ulPcrValueLength);
  w.WriteUniquePointer(e.rgbPcrValue.has_value());
  w.WriteUint32(e.ulEventLength);
  w.WriteUniquePointer(e.rgbEvent.has_value());
}
bool WriteDeferred(NdrWriter& w, const PcrEvent& e) {
  return WriteDeferredBytes(w, e.ulPcrValueLength, e.rgbPcrValue) &&
         WriteDeferredBytes(w, e.ulEventLength, e.rgbEvent);
}

bool ReadFixedPart(NdrReader& r, KeyInfo& k) {
  return r.Align(4) && Read(r, k.versionInfo) && Read(r, k.keyUUID) && Read(r, k.parentKeyUUID) &&
         r.ReadUint8(k.bAuthDataUsage) && r.ReadUint8(k.fIsLoaded) &&
         r.ReadUint32(k.ulVendorDataLength) && ReadPointer(r, k.rgbVendorData);
}
bool ReadDeferred(NdrReader& r, KeyInfo& k) {
  return ReadDeferredBytes(r, k.ulVendorDataLength, k.rgbVendorData);
}
void WriteFixedPart(NdrWriter& w, const KeyInfo& k) {
  w.Align(4);
  Write(w, k.versionInfo);
  Write(w, k.keyUUID);
  Write(w, k.parentKeyUUID);
  w.WriteUint8(k.bAuthDataUsage);
  w.WriteUint8(k.fIsLoaded);
  w.WriteUint32(k.ulVendorDataLength);
  w.WriteUniquePointer(k.rgbVendorData.has_value());
}
bool WriteDeferred(NdrWriter& w, const KeyInfo& k) {
  return WriteDeferredBytes(w, k.ulVendorDataLength, k.rgbVendorData);
}

template <typename T>
bool Read(NdrReader& r, T& s) requires std::is_same_v<T, PcrEvent> || std::is_same_v<T, KeyInfo> {
  return ReadFixedPart(r, s) && ReadDeferred(r, s);
}
template <typename T>
bool Write(NdrWriter& w,
           const T& s) requires std::is_same_v<T, PcrEvent> || std::is_same_v<T, KeyInfo> {
  WriteFixedPart(w, s);
  return WriteDeferred(w, s);
}

// ---- One element, and arrays ----

bool ReadScalar(NdrReader& r, Kind kind, uint64_t& out) {
  switch (kind) {
    case Kind::kUint32: {
      uint32_t v = 0;
      if (!r.ReadUint32(v)) return false;
      out = v;
      return true;
    }
    case Kind::kUint16: {
      uint16_t v = 0;
      if (!r.ReadUint16(v)) return false;
      out = v;
      return true;
    }
    case Kind::kUint64:
      return r.ReadUint64(out);
    default: {
      uint8_t v = 0;
      if (!r.ReadUint8(v)) return false;
      out = v;
      return true;
    }
  }
}

void WriteScalar(NdrWriter& w, Kind kind, uint64_t v) {
  switch (kind) {
    case Kind::kUint32:
      w.WriteUint32(static_cast<uint32_t>(v));
      break;
    case Kind::kUint16:
      w.WriteUint16(static_cast<uint16_t>(v));
      break;
    case Kind::kUint64:
      w.WriteUint64(v);
      break;
    default:
      w.WriteUint8(static_cast<uint8_t>(v));
      break;
  }
}

// A single value (kValue, kRef, and the referent of kUnique / kPtr), pointees included.
bool ReadElement(NdrReader& r, Kind kind, Value& value) {
  if (IsScalar(kind)) {
    uint64_t v = 0;
    if (!ReadScalar(r, kind, v)) return false;
    value = v;
    return true;
  }
  return std::visit(
      [&r](auto& s) {
        using T = std::decay_t<decltype(s)>;
        if constexpr (std::is_same_v<T, uint64_t> || std::is_same_v<T, Bytes> ||
                      std::is_same_v<T, std::vector<uint32_t>> ||
                      std::is_same_v<T, std::vector<PcrEvent>> ||
                      std::is_same_v<T, std::vector<KeyInfo>>) {
          return r.Fail();  // a frame built by ValueFor() never holds these for a structure
        } else {
          return Read(r, s);
        }
      },
      value);
}

bool WriteElement(NdrWriter& w, Kind kind, const Value& value) {
  if (IsScalar(kind)) {
    if (!std::holds_alternative<uint64_t>(value)) return false;
    WriteScalar(w, kind, std::get<uint64_t>(value));
    return true;
  }
  return std::visit(
      [&w](const auto& s) {
        using T = std::decay_t<decltype(s)>;
        if constexpr (std::is_same_v<T, uint64_t> || std::is_same_v<T, Bytes> ||
                      std::is_same_v<T, std::vector<uint32_t>> ||
                      std::is_same_v<T, std::vector<PcrEvent>> ||
                      std::is_same_v<T, std::vector<KeyInfo>>) {
          return false;
        } else if constexpr (std::is_same_v<T, PcrEvent> || std::is_same_v<T, KeyInfo>) {
          return Write(w, s);
        } else {
          Write(w, s);
          return true;
        }
      },
      value);
}

// Array elements after their conformance `count`.
bool ReadArrayElements(NdrReader& r, Kind kind, uint32_t count, Value& value) {
  switch (kind) {
    case Kind::kUint32: {
      std::vector<uint32_t> words(count);
      for (uint32_t& word : words) {
        if (!r.ReadUint32(word)) return false;
      }
      value = std::move(words);
      return true;
    }
    case Kind::kPcrEvent:
    case Kind::kKeyInfo: {
      auto read_all = [&r, count, &value](auto items) {
        items.resize(count);
        for (auto& item : items) {
          if (!ReadFixedPart(r, item)) return false;
        }
        for (auto& item : items) {
          if (!ReadDeferred(r, item)) return false;
        }
        value = std::move(items);
        return true;
      };
      return kind == Kind::kPcrEvent ? read_all(std::vector<PcrEvent>())
                                     : read_all(std::vector<KeyInfo>());
    }
    default: {
      Bytes bytes;
      if (!r.ReadBytes(count, bytes)) return false;
      value = std::move(bytes);
      return true;
    }
  }
}

std::optional<size_t> ElementCount(const Value& value) {
  if (const auto* b = std::get_if<Bytes>(&value)) return b->size();
  if (const auto* u = std::get_if<std::vector<uint32_t>>(&value)) return u->size();
  if (const auto* p = std::get_if<std::vector<PcrEvent>>(&value)) return p->size();
  if (const auto* k = std::get_if<std::vector<KeyInfo>>(&value)) return k->size();
  return std::nullopt;
}

// Conformance, then the elements (and for structures their data after all of them).
void WriteArray(NdrWriter& w, const Value& value, bool& ok) {
  if (const auto* b = std::get_if<Bytes>(&value)) {
    w.WriteConformantBytes(*b);
  } else if (const auto* u = std::get_if<std::vector<uint32_t>>(&value)) {
    w.WriteArrayCount(static_cast<uint32_t>(u->size()));
    for (uint32_t word : *u) w.WriteUint32(word);
  } else {
    std::visit(
        [&w, &ok](const auto& items) {
          using T = std::decay_t<decltype(items)>;
          if constexpr (std::is_same_v<T, std::vector<PcrEvent>> ||
                        std::is_same_v<T, std::vector<KeyInfo>>) {
            w.WriteArrayCount(static_cast<uint32_t>(items.size()));
            for (const auto& item : items) WriteFixedPart(w, item);
            for (const auto& item : items) ok = WriteDeferred(w, item) && ok;
          } else {
            ok = false;
          }
        },
        value);
  }
}

// ---- Parameters ----

// Reads parameter `index` of the frame's operation as it appears in the stub.
bool ReadParam(NdrReader& r, CallFrame& frame, size_t index) {
  const Param& p = frame.op().params[index];
  Arg& arg = frame.arg(index);
  switch (p.form) {
    case Form::kValue:
    case Form::kRef:
      arg.present = true;
      arg.value = ValueFor(p);
      return ReadElement(r, p.kind, arg.value);
    case Form::kUnique:
    case Form::kPtr:
      if (!r.ReadUniquePointer(arg.present)) return false;
      arg.value = ValueFor(p);
      return !arg.present || ReadElement(r, p.kind, arg.value);
    case Form::kOptPtr:
      // An element that comes with a request is read and dropped: only the answer fills it.
      if (!r.ReadUniquePointer(arg.requested)) return false;
      arg.present = false;
      arg.value = ValueFor(p);
      if (!arg.requested) return true;
      if (!r.ReadUniquePointer(arg.present)) return false;
      return !arg.present || ReadElement(r, p.kind, arg.value);
    case Form::kArray:
    case Form::kArrayPtr: {
      if (p.form == Form::kArrayPtr) {
        if (!r.ReadUniquePointer(arg.present)) return false;
        arg.value = ValueFor(p);
        if (!arg.present) return true;
      }
      const std::optional<size_t> size_index = SizeParamIndex(frame.op(), index);
      uint32_t count = 0;
      if (!size_index || !r.ReadArrayCount(count, MinWireSize(p.kind))) return r.Fail();
      if (count != frame.u32(*size_index)) return r.Fail();
      return ReadArrayElements(r, p.kind, count, arg.value);
    }
  }
  return r.Fail();
}

bool WriteParam(NdrWriter& w, const CallFrame& frame, size_t index) {
  const Param& p = frame.op().params[index];
  const Arg& arg = frame.arg(index);
  switch (p.form) {
    case Form::kValue:
    case Form::kRef:
      return arg.present && WriteElement(w, p.kind, arg.value);
    case Form::kUnique:
    case Form::kPtr:
      w.WriteUniquePointer(arg.present);
      return !arg.present || WriteElement(w, p.kind, arg.value);
    case Form::kOptPtr:
      w.WriteUniquePointer(arg.requested);
      if (!arg.requested) return true;
      w.WriteUniquePointer(arg.present);
      return !arg.present || WriteElement(w, p.kind, arg.value);
    case Form::kArray:
    case Form::kArrayPtr: {
      if (p.form == Form::kArrayPtr) {
        w.WriteUniquePointer(arg.present);
        if (!arg.present) return true;
      } else if (!arg.present) {
        return false;
      }
      const std::optional<size_t> size_index = SizeParamIndex(frame.op(), index);
      const std::optional<size_t> count = ElementCount(arg.value);
      if (!size_index || !count || *count != frame.u32(*size_index)) return false;
      bool ok = true;
      WriteArray(w, arg.value, ok);
      return ok;
    }
  }
  return false;
}

}  // namespace

dcerpc::SyntaxId TcsInterfaceSyntax() {
  return {*dcerpc::Uuid::Parse("fbcd9c02-72cb-47bb-99dd-aedb551491de"), 1, 0};
}

Value ValueFor(const Param& param) {
  if (param.form == Form::kArray || param.form == Form::kArrayPtr) {
    switch (param.kind) {
      case Kind::kUint32:
        return std::vector<uint32_t>();
      case Kind::kPcrEvent:
        return std::vector<PcrEvent>();
      case Kind::kKeyInfo:
        return std::vector<KeyInfo>();
      default:
        return Bytes();
    }
  }
  switch (param.kind) {
    case Kind::kDigest:
      return TPM_DIGEST{};
    case Kind::kAuth:
      return TPM_AUTH{};
    case Kind::kUuid:
      return TSS_UUID{};
    case Kind::kVersion:
      return TPM_VERSION{};
    case Kind::kCounterValue:
      return TPM_COUNTER_VALUE{};
    case Kind::kCmkAuth:
      return TPM_CMK_AUTH{};
    case Kind::kPcrEvent:
      return PcrEvent{};
    case Kind::kKeyInfo:
      return KeyInfo{};
    case Kind::kLoadKeyInfo:
      return TCS_LOADKEY_INFO{};
    default:
      return uint64_t{0};
  }
}

CallFrame::CallFrame(const Operation& op) : op_(&op) {
  args_.reserve(op.params.size());
  for (const Param& p : op.params) {
    const bool pointer_output =
        p.form == Form::kOptPtr ||
        (p.dir == Dir::kOut && (p.form == Form::kPtr || p.form == Form::kArrayPtr));
    args_.push_back(Arg{!pointer_output, ValueFor(p)});
  }
}

void CallFrame::SetOutput(size_t index, Value v) {
  const std::optional<size_t> size_index = SizeParamIndex(*op_, index);
  if (size_index) {
    const std::optional<size_t> count = ElementCount(v);
    args_[*size_index].value = uint64_t{count.value_or(0)};
  }
  args_[index] = Arg{true, std::move(v)};
}

bool UnmarshalRequest(NdrReader& reader, CallFrame& frame) {
  for (size_t i = 0; i < frame.size(); ++i) {
    if (frame.op().params[i].is_input() && !ReadParam(reader, frame, i)) return false;
  }
  return reader.ok();
}

bool MarshalResponse(const CallFrame& frame, TSS_RESULT result, NdrWriter& writer) {
  for (size_t i = 0; i < frame.size(); ++i) {
    if (frame.op().params[i].is_output() && !WriteParam(writer, frame, i)) return false;
  }
  writer.WriteUint32(result);
  return true;
}

bool MarshalRequest(const CallFrame& frame, NdrWriter& writer) {
  for (size_t i = 0; i < frame.size(); ++i) {
    if (frame.op().params[i].is_input() && !WriteParam(writer, frame, i)) return false;
  }
  return true;
}

bool UnmarshalResponse(NdrReader& reader, CallFrame& frame, TSS_RESULT& result) {
  for (size_t i = 0; i < frame.size(); ++i) {
    const Param& p = frame.op().params[i];
    if (!p.is_output()) continue;
    const bool sent = frame.arg(i).present;
    const bool requested = frame.arg(i).requested;
    if (!ReadParam(reader, frame, i)) return false;
    if (p.form == Form::kUnique && frame.arg(i).present != sent) return reader.Fail();
    if (frame.arg(i).requested != requested) return reader.Fail();
  }
  uint32_t r = 0;
  if (!reader.ReadUint32(r)) return false;
  result = r;
  return reader.ok();
}

}  // namespace kesttcs::rpc
