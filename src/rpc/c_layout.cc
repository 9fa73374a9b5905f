#include "rpc/c_layout.h"

#include <cstring>
#include <variant>

namespace kesttcs::rpc {
namespace {

template <typename T>
void Put(void* c, const T& v) {
  std::memcpy(c, &v, sizeof(T));
}
template <typename T>
T Get(const void* c) {
  T v;
  std::memcpy(&v, c, sizeof(T));
  return v;
}

// Points a C pointer at owned optional bytes (null when absent).
BYTE* View(const std::optional<Bytes>& bytes) {
  if (!bytes) return nullptr;
  // The C structures carry non-const pointers; the callee only reads them.
  return const_cast<BYTE*>(bytes->data());
}

std::optional<Bytes> Copy(const BYTE* p, UINT32 length) {
  if (p == nullptr) return std::nullopt;
  return Bytes(p, p + length);
}

TSS_PCR_EVENT EventToC(const PcrEvent& e) {
  TSS_PCR_EVENT c{};
  c.versionInfo = e.versionInfo;
  c.ulPcrIndex = e.ulPcrIndex;
  c.eventType = e.eventType;
  c.ulPcrValueLength = e.ulPcrValueLength;
  c.rgbPcrValue = View(e.rgbPcrValue);
  c.ulEventLength = e.ulEventLength;
  c.rgbEvent = View(e.rgbEvent);
  return c;
}

PcrEvent EventFromC(const TSS_PCR_EVENT& c) {
  PcrEvent e;
  e.versionInfo = c.versionInfo;
  e.ulPcrIndex = c.ulPcrIndex;
  e.eventType = c.eventType;
  e.ulPcrValueLength = c.ulPcrValueLength;
  e.rgbPcrValue = Copy(c.rgbPcrValue, c.ulPcrValueLength);
  e.ulEventLength = c.ulEventLength;
  e.rgbEvent = Copy(c.rgbEvent, c.ulEventLength);
  return e;
}

TSS_KM_KEYINFO KeyInfoToC(const KeyInfo& k) {
  TSS_KM_KEYINFO c{};
  c.versionInfo = k.versionInfo;
  c.keyUUID = k.keyUUID;
  c.parentKeyUUID = k.parentKeyUUID;
  c.bAuthDataUsage = k.bAuthDataUsage;
  c.fIsLoaded = k.fIsLoaded;
  c.ulVendorDataLength = k.ulVendorDataLength;
  c.rgbVendorData = View(k.rgbVendorData);
  return c;
}

KeyInfo KeyInfoFromC(const TSS_KM_KEYINFO& c) {
  KeyInfo k;
  k.versionInfo = c.versionInfo;
  k.keyUUID = c.keyUUID;
  k.parentKeyUUID = c.parentKeyUUID;
  k.bAuthDataUsage = c.bAuthDataUsage;
  k.fIsLoaded = c.fIsLoaded;
  k.ulVendorDataLength = c.ulVendorDataLength;
  k.rgbVendorData = Copy(c.rgbVendorData, c.ulVendorDataLength);
  return k;
}

}  // namespace

void SingleToC(Kind kind, const Value& v, void* c) {
  switch (kind) {
    case Kind::kUint32:
      Put(c, static_cast<UINT32>(std::get<uint64_t>(v)));
      return;
    case Kind::kUint16:
      Put(c, static_cast<UINT16>(std::get<uint64_t>(v)));
      return;
    case Kind::kByte:
    case Kind::kBool:
      Put(c, static_cast<BYTE>(std::get<uint64_t>(v)));
      return;
    case Kind::kUint64:
      Put(c, static_cast<UINT64>(std::get<uint64_t>(v)));
      return;
    case Kind::kDigest:
      Put(c, std::get<TPM_DIGEST>(v));
      return;
    case Kind::kAuth:
      Put(c, std::get<TPM_AUTH>(v));
      return;
    case Kind::kUuid:
      Put(c, std::get<TSS_UUID>(v));
      return;
    case Kind::kVersion:
      Put(c, std::get<TPM_VERSION>(v));
      return;
    case Kind::kCounterValue:
      Put(c, std::get<TPM_COUNTER_VALUE>(v));
      return;
    case Kind::kCmkAuth:
      Put(c, std::get<TPM_CMK_AUTH>(v));
      return;
    case Kind::kPcrEvent:
      Put(c, EventToC(std::get<PcrEvent>(v)));
      return;
    case Kind::kKeyInfo:
      Put(c, KeyInfoToC(std::get<KeyInfo>(v)));
      return;
    case Kind::kLoadKeyInfo:
      Put(c, std::get<TCS_LOADKEY_INFO>(v));
      return;
  }
}

Value SingleFromC(Kind kind, const void* c) {
  switch (kind) {
    case Kind::kUint32:
      return uint64_t{Get<UINT32>(c)};
    case Kind::kUint16:
      return uint64_t{Get<UINT16>(c)};
    case Kind::kByte:
    case Kind::kBool:
      return uint64_t{Get<BYTE>(c)};
    case Kind::kUint64:
      return uint64_t{Get<UINT64>(c)};
    case Kind::kDigest:
      return Get<TPM_DIGEST>(c);
    case Kind::kAuth:
      return Get<TPM_AUTH>(c);
    case Kind::kUuid:
      return Get<TSS_UUID>(c);
    case Kind::kVersion:
      return Get<TPM_VERSION>(c);
    case Kind::kCounterValue:
      return Get<TPM_COUNTER_VALUE>(c);
    case Kind::kCmkAuth:
      return Get<TPM_CMK_AUTH>(c);
    case Kind::kPcrEvent:
      return EventFromC(Get<TSS_PCR_EVENT>(c));
    case Kind::kKeyInfo:
      return KeyInfoFromC(Get<TSS_KM_KEYINFO>(c));
    case Kind::kLoadKeyInfo:
      return Get<TCS_LOADKEY_INFO>(c);
  }
  return uint64_t{0};
}

std::vector<uint8_t> ArrayToC(Kind kind, const Value& v) {
  std::vector<uint8_t> out;
  if (const auto* bytes = std::get_if<Bytes>(&v)) {
    out = *bytes;
  } else if (const auto* words = std::get_if<std::vector<uint32_t>>(&v)) {
    out.resize(words->size() * sizeof(uint32_t));
    if (!words->empty()) std::memcpy(out.data(), words->data(), out.size());
  } else if (const auto* events = std::get_if<std::vector<PcrEvent>>(&v)) {
    out.resize(events->size() * CSize(kind));
    for (size_t i = 0; i < events->size(); ++i) {
      Put(out.data() + i * CSize(kind), EventToC((*events)[i]));
    }
  } else if (const auto* infos = std::get_if<std::vector<KeyInfo>>(&v)) {
    out.resize(infos->size() * CSize(kind));
    for (size_t i = 0; i < infos->size(); ++i) {
      Put(out.data() + i * CSize(kind), KeyInfoToC((*infos)[i]));
    }
  }
  return out;
}

Value ArrayFromC(Kind kind, const void* c, size_t count) {
  const auto* base = static_cast<const uint8_t*>(c);
  switch (kind) {
    case Kind::kUint32: {
      std::vector<uint32_t> words(count);
      if (count != 0) std::memcpy(words.data(), base, count * sizeof(uint32_t));
      return words;
    }
    case Kind::kPcrEvent: {
      std::vector<PcrEvent> events;
      events.reserve(count);
      for (size_t i = 0; i < count; ++i) {
        events.push_back(EventFromC(Get<TSS_PCR_EVENT>(base + i * CSize(kind))));
      }
      return events;
    }
    case Kind::kKeyInfo: {
      std::vector<KeyInfo> infos;
      infos.reserve(count);
      for (size_t i = 0; i < count; ++i) {
        infos.push_back(KeyInfoFromC(Get<TSS_KM_KEYINFO>(base + i * CSize(kind))));
      }
      return infos;
    }
    default:
      return count == 0 ? Bytes() : Bytes(base, base + count * CSize(kind));
  }
}

std::vector<uint8_t> OutputToC(Kind kind, const Value& v, bool single) {
  if (!single) return ArrayToC(kind, v);
  std::vector<uint8_t> element(CSize(kind));
  SingleToC(kind, v, element.data());
  return element;
}

}  // namespace kesttcs::rpc
