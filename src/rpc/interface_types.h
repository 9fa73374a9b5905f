// The types of the RPC interface, each defined once, here: the base types, the scalar typedefs and
// the structures with their fields, in declaration order. kesttcs_ifgen writes them out as the
// typedefs of src/rpc/kesttcs.idl and as the generated section of <kesttcs/tcs_types.h>, which the
// rest of the code uses; the parameters of the operation table (rpc/operations.h) name them, and
// each parameter's Kind comes from here.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace kesttcs::rpc {

// What one element of a parameter is: how the stubs carry it and how big it is in C.
enum class Kind : uint8_t {
  kUint32,        // UINT32 and the 32-bit handle and code types
  kUint16,        // UINT16 and the 16-bit TPM types
  kByte,          // BYTE
  kBool,          // TSS_BOOL (one byte)
  kUint64,        // UINT64
  kDigest,        // 20 bytes: TPM_DIGEST, TPM_NONCE, TPM_AUTHDATA and their aliases
  kAuth,          // TPM_AUTH
  kUuid,          // TSS_UUID
  kVersion,       // TPM_VERSION
  kCounterValue,  // TPM_COUNTER_VALUE
  kCmkAuth,       // TPM_CMK_AUTH
  kPcrEvent,      // TSS_PCR_EVENT
  kKeyInfo,       // TSS_KM_KEYINFO
  kLoadKeyInfo,   // TCS_LOADKEY_INFO
};

// One member of a structure.
struct Field {
  std::string_view type;
  std::string_view name;
  uint32_t count = 0;          // a fixed array of `count` elements; 0 for a single element
  std::string_view size_is{};  // a pointer to as many elements as the earlier field `size_is` says
};

// One declared type: a base type (spelled `idl` in the interface and `c` in C), a typedef of an
// earlier type (`alias_of`), or a structure (`fields`, tag "td" + name). A parameter of this type
// is a `kind`; an alias without one is what its target is, and a type that ends up with none
// (TSS_VERSION) cannot be a parameter.
struct WireType {
  std::string_view name;
  std::string_view idl{};
  std::string_view c{};
  std::string_view alias_of{};
  std::span<const Field> fields{};
  std::optional<Kind> kind{};
  std::string_view comment{};  // written above the declaration

  constexpr bool is_struct() const { return !fields.empty(); }
};

// Declarations under one heading.
struct TypeGroup {
  std::string_view heading;
  std::span<const WireType> types;
};

namespace detail {

consteval WireType Base(std::string_view name, std::string_view idl, std::string_view c,
                        Kind kind) {
  return WireType{.name = name, .idl = idl, .c = c, .kind = kind};
}
consteval WireType Alias(std::string_view name, std::string_view of,
                         std::optional<Kind> kind = std::nullopt) {
  return WireType{.name = name, .alias_of = of, .kind = kind};
}
consteval WireType Struct(std::string_view name, std::span<const Field> fields,
                          std::optional<Kind> kind, std::string_view comment = {}) {
  return WireType{.name = name, .fields = fields, .kind = kind, .comment = comment};
}

inline constexpr WireType kBaseTypes[] = {
    Base("BYTE", "unsigned char", "uint8_t", Kind::kByte),
    Base("UINT16", "unsigned short", "uint16_t", Kind::kUint16),
    Base("UINT32", "unsigned int", "uint32_t", Kind::kUint32),
    Base("UINT64", "unsigned hyper", "uint64_t", Kind::kUint64),
    // A byte on the wire, but a kind of its own.
    Alias("TSS_BOOL", "BYTE", Kind::kBool),
};

inline constexpr WireType k32BitScalars[] = {
    Alias("TSS_RESULT", "UINT32"),
    Alias("TCS_CONTEXT_HANDLE", "UINT32"),
    Alias("TCS_KEY_HANDLE", "UINT32"),
    Alias("TCS_AUTHHANDLE", "UINT32"),
    Alias("TCS_HANDLE", "UINT32"),
    Alias("TSS_EVENTTYPE", "UINT32"),
    Alias("TSS_NV_INDEX", "UINT32"),
    Alias("TSS_COUNTER_ID", "UINT32"),
    Alias("TSS_CMK_DELEGATE", "UINT32"),
    Alias("TPM_CAPABILITY_AREA", "UINT32"),
    Alias("TPM_ALGORITHM_ID", "UINT32"),
    Alias("TPM_PCRINDEX", "UINT32"),
    Alias("TPM_DIRINDEX", "UINT32"),
    Alias("TPM_HANDLE", "UINT32"),
    Alias("TPM_COMMAND_CODE", "UINT32"),
    Alias("TPM_RESULT", "UINT32"),
    Alias("TPM_MODIFIER_INDICATOR", "UINT32"),
    Alias("TPM_FAMILY_ID", "UINT32"),
    Alias("TPM_FAMILY_OPERATION", "UINT32"),
    Alias("TPM_DELEGATE_INDEX", "UINT32"),
    Alias("TPM_REDIR_COMMAND", "UINT32"),
    Alias("TPM_ACTUAL_COUNT", "UINT32"),
};

inline constexpr WireType k16BitScalars[] = {
    Alias("TPM_PROTOCOL_ID", "UINT16"),    Alias("TPM_ENTITY_TYPE", "UINT16"),
    Alias("TPM_MIGRATE_SCHEME", "UINT16"), Alias("TPM_PHYSICAL_PRESENCE", "UINT16"),
    Alias("TPM_STRUCTURE_TAG", "UINT16"),
};

inline constexpr Field kTpmDigest[] = {{"BYTE", "digest", 20}};
inline constexpr Field kTpmNonce[] = {{"BYTE", "nonce", 20}};
inline constexpr Field kTpmAuthdata[] = {{"BYTE", "authdata", 20}};

inline constexpr WireType kDigests[] = {
    Struct("TPM_DIGEST", kTpmDigest, Kind::kDigest),
    Alias("TPM_PCRVALUE", "TPM_DIGEST"),
    Alias("TPM_DIRVALUE", "TPM_DIGEST"),
    Alias("TPM_HMAC", "TPM_DIGEST"),
    Alias("TPM_CHOSENID_HASH", "TPM_DIGEST"),
    Struct("TPM_NONCE", kTpmNonce, Kind::kDigest),
    Struct("TPM_AUTHDATA", kTpmAuthdata, Kind::kDigest),
    Alias("TPM_ENCAUTH", "TPM_AUTHDATA"),
    Alias("TPM_SECRET", "TPM_AUTHDATA"),
};

inline constexpr Field kTpmAuth[] = {
    {"TCS_AUTHHANDLE", "AuthHandle"},     {"TPM_NONCE", "NonceOdd"}, {"TPM_NONCE", "NonceEven"},
    {"TSS_BOOL", "fContinueAuthSession"}, {"TPM_AUTHDATA", "HMAC"},
};
inline constexpr Field kTssVersion[] = {
    {"BYTE", "bMajor"},
    {"BYTE", "bMinor"},
    {"BYTE", "bRevMajor"},
    {"BYTE", "bRevMinor"},
};
inline constexpr Field kTpmVersion[] = {
    {"BYTE", "major"},
    {"BYTE", "minor"},
    {"BYTE", "revMajor"},
    {"BYTE", "revMinor"},
};
inline constexpr Field kTssUuid[] = {
    {"UINT32", "ulTimeLow"},   {"UINT16", "usTimeMid"},  {"UINT16", "usTimeHigh"},
    {"BYTE", "bClockSeqHigh"}, {"BYTE", "bClockSeqLow"}, {"BYTE", "rgbNode", 6},
};
inline constexpr Field kTssPcrEvent[] = {
    {"TSS_VERSION", "versionInfo"},
    {"UINT32", "ulPcrIndex"},
    {"TSS_EVENTTYPE", "eventType"},
    {"UINT32", "ulPcrValueLength"},
    {"BYTE", "rgbPcrValue", 0, "ulPcrValueLength"},
    {"UINT32", "ulEventLength"},
    {"BYTE", "rgbEvent", 0, "ulEventLength"},
};
inline constexpr Field kTssKmKeyinfo[] = {
    {"TSS_VERSION", "versionInfo"},
    {"TSS_UUID", "keyUUID"},
    {"TSS_UUID", "parentKeyUUID"},
    {"BYTE", "bAuthDataUsage"},
    {"TSS_BOOL", "fIsLoaded"},
    {"UINT32", "ulVendorDataLength"},
    {"BYTE", "rgbVendorData", 0, "ulVendorDataLength"},
};
inline constexpr Field kTcsLoadkeyInfo[] = {
    {"TSS_UUID", "keyUUID"},
    {"TSS_UUID", "parentKeyUUID"},
    {"TPM_DIGEST", "paramDigest"},
    {"TPM_AUTH", "authData"},
};
inline constexpr Field kTpmCounterValue[] = {
    {"TPM_STRUCTURE_TAG", "tag"},
    {"BYTE", "label", 4},
    {"TPM_ACTUAL_COUNT", "counter"},
};
inline constexpr Field kTpmCmkAuth[] = {
    {"TPM_DIGEST", "migrationAuthorityDigest"},
    {"TPM_DIGEST", "destinationKeyDigest"},
    {"TPM_DIGEST", "sourceKeyDigest"},
};

inline constexpr WireType kStructures[] = {
    Struct("TPM_AUTH", kTpmAuth, Kind::kAuth,
           "The authorisation record of one session as the TCS carries it."),
    Struct("TSS_VERSION", kTssVersion, std::nullopt),
    Struct("TPM_VERSION", kTpmVersion, Kind::kVersion),
    Struct("TSS_UUID", kTssUuid, Kind::kUuid),
    Struct("TSS_PCR_EVENT", kTssPcrEvent, Kind::kPcrEvent),
    Struct("TSS_KM_KEYINFO", kTssKmKeyinfo, Kind::kKeyInfo),
    Struct("TCS_LOADKEY_INFO", kTcsLoadkeyInfo, Kind::kLoadKeyInfo),
    Struct("TPM_COUNTER_VALUE", kTpmCounterValue, Kind::kCounterValue),
    Struct("TPM_CMK_AUTH", kTpmCmkAuth, Kind::kCmkAuth),
};

}  // namespace detail

// Every type of the interface, in declaration order.
inline constexpr TypeGroup kInterfaceTypes[] = {
    {"Base types.", detail::kBaseTypes},
    {"32-bit scalars.", detail::k32BitScalars},
    {"16-bit scalars.", detail::k16BitScalars},
    {"20-byte values, passed by value.", detail::kDigests},
    {"Structures.", detail::kStructures},
};

// The declared type `name`, or null.
constexpr const WireType* FindWireType(std::string_view name) {
  for (const TypeGroup& group : kInterfaceTypes) {
    for (const WireType& type : group.types) {
      if (type.name == name) return &type;
    }
  }
  return nullptr;
}

// What a parameter of type `name` is, or nullopt for an undeclared type or one that cannot be a
// parameter. (Walks the declarations by name, not by pointer: GCC's undefined-behaviour checks do
// not let a constant expression compare a pointer with null.)
constexpr std::optional<Kind> ParamKindOf(std::string_view name) {
  for (const TypeGroup& group : kInterfaceTypes) {
    for (const WireType& type : group.types) {
      if (type.name != name) continue;
      if (type.kind || type.alias_of.empty()) return type.kind;
      return ParamKindOf(type.alias_of);
    }
  }
  return std::nullopt;
}

}  // namespace kesttcs::rpc
