#include "tools/nv_command.h"

#include <cstdio>
#include <fstream>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/authorised_call.h"
#include "tools/cli_format.h"
#include "tools/secret_input.h"

namespace kesttcs::cli {
namespace {

constexpr UINT32 kPerAuthRead = 0x00040000;
constexpr UINT32 kPerOwnerRead = 0x00020000;
constexpr UINT32 kPerAuthWrite = 0x00000004;
constexpr UINT32 kPerOwnerWrite = 0x00000002;
constexpr UINT32 kMaxSpaceSize = 0xFFFF;
constexpr UINT16 kTagNvDataPublic = 0x0018;
constexpr UINT16 kTagNvAttributes = 0x0017;
constexpr BYTE kAnyLocality = 0x1F;

// What a space's public area says about its use.
struct SpaceInfo {
  UINT32 attributes = 0;
  UINT32 size = 0;
};

// TPM_NV_DATA_PUBLIC without PCR binding: each TPM_PCR_INFO_SHORT an empty 3-byte selection, any
// locality and a zero digest.
std::vector<BYTE> NvPublic(UINT32 index, UINT32 attributes, UINT32 size) {
  std::vector<BYTE> pub = {kTagNvDataPublic >> 8, kTagNvDataPublic & 0xFF};
  AppendUINT32(pub, index);
  for (int i = 0; i < 2; ++i) {
    pub.insert(pub.end(), {0, 3, 0, 0, 0, kAnyLocality});
    pub.insert(pub.end(), 20, 0);
  }
  pub.insert(pub.end(), {kTagNvAttributes >> 8, kTagNvAttributes & 0xFF});
  AppendUINT32(pub, attributes);
  pub.insert(pub.end(), {0, 0, 0});  // no per-boot read or write lock, no write-define
  AppendUINT32(pub, size);
  return pub;
}

UINT32 ReadUINT32(const std::vector<BYTE>& b, size_t at) {
  return UINT32{b[at]} << 24 | UINT32{b[at + 1]} << 16 | UINT32{b[at + 2]} << 8 | b[at + 3];
}

// The attributes and size from a TPM_NV_DATA_PUBLIC; nothing when it is malformed.
std::optional<SpaceInfo> ParseNvPublic(const std::vector<BYTE>& pub) {
  size_t at = 6;                 // tag, nvIndex
  for (int i = 0; i < 2; ++i) {  // pcrInfoRead, pcrInfoWrite
    if (pub.size() < at + 2) return std::nullopt;
    at += 2 + ((size_t{pub[at]} << 8) | pub[at + 1]) + 1 + 20;
  }
  constexpr size_t kTail = 2 + 4 + 3 + 4;  // permission tag and attributes, 3 flags, dataSize
  if (pub.size() < at + kTail) return std::nullopt;
  return SpaceInfo{ReadUINT32(pub, at + 2), ReadUINT32(pub, at + 9)};
}

std::string IndexText(UINT32 index) { return CodeText(index); }

std::vector<std::string> AttributeNames(UINT32 attributes) {
  std::vector<std::string> names;
  if (attributes & kPerOwnerWrite) names.push_back("owner-write");
  if (attributes & kPerAuthWrite) names.push_back("auth-write");
  if (attributes & kPerOwnerRead) names.push_back("owner-read");
  if (attributes & kPerAuthRead) names.push_back("auth-read");
  return names;
}

// Words for what the TPM said about a space.
std::string Explain(TSS_RESULT r, bool defining) {
  if (r == TpmResult(TPM_AUTHFAIL)) {
    return "wrong secret (the space's own, or the owner's for owner-authorised use)";
  }
  if (r == TpmResult(TPM_BADINDEX)) {
    return defining ? "the index is already defined, or is not one a space may use"
                    : "the NV index is not defined";
  }
  if (r == TpmResult(TPM_NOSPACE)) {
    return defining ? "the TPM has no room for a space of that size"
                    : "offset and size reach beyond the space";
  }
  if (r == TpmResult(TPM_AUTH_CONFLICT)) {
    return "the space's permissions ask for another kind of authorisation";
  }
  if (r == TpmResult(TPM_AREA_LOCKED)) return "the space is locked against writing";
  if (r == TpmResult(TPM_BAD_PRESENCE)) return "the space needs physical presence";
  return "";
}

// The space's public area as the TPM reports it (TPM_CAP_NV_INDEX).
std::optional<Failure> LookUp(TcsConnection& tcs, UINT32 index, SpaceInfo* info) {
  std::vector<BYTE> subCap;
  AppendUINT32(subCap, index);
  std::vector<BYTE> pub;
  if (TSS_RESULT r = tcs.TpmCapability(TPM_CAP_NV_INDEX, subCap, &pub); r != 0) {
    return Failure{
        "Tcsip_GetCapability", r,
        r == TpmResult(TPM_BADINDEX) ? "NV index " + IndexText(index) + " is not defined" : ""};
  }
  std::optional<SpaceInfo> parsed = ParseNvPublic(pub);
  if (!parsed) {
    return Failure{"Tcsip_GetCapability", TCS_E_BAD_PARAMETER,
                   "the TPM's description of the space is malformed"};
  }
  *info = *parsed;
  return std::nullopt;
}

// Defines (size > 0) or releases (size 0) a space under the owner's OSAP session.
std::optional<Failure> DefineSpace(TcsConnection& tcs, const TPM_SECRET& owner,
                                   const TPM_SECRET& secret, std::vector<BYTE> pub) {
  const TCS_CONTEXT_HANDLE h = tcs.context();
  return RunOverOwnerOsap(h, owner, secret, [&](const TPM_ENCAUTH& encAuth) {
    std::vector<BYTE> params = pub;
    params.insert(params.end(), encAuth.authdata, encAuth.authdata + sizeof encAuth.authdata);
    return AuthorisedCall{h,
                          TPM_ORD_NV_DefineSpace,
                          params,
                          "Tcsip_NV_DefineOrReleaseSpace",
                          [h, pub, encAuth](TPM_AUTH* auth, std::vector<BYTE>*) mutable {
                            return Tcsip_NV_DefineOrReleaseSpace(h, static_cast<UINT32>(pub.size()),
                                                                 pub.data(), encAuth, auth);
                          },
                          [](TSS_RESULT r) { return Explain(r, true); }};
  });
}

}  // namespace

NvCommand::NvCommand(CLI::App& app) {
  CLI::App* nv = app.add_subcommand("nv", "The TPM's non-volatile storage spaces");
  nv->require_subcommand(1);
  nv->fallthrough();
  define_ = nv->add_subcommand("define",
                               "Define space INDEX of --size bytes with the owner's authorisation");
  define_->add_option("--size", sizeText_, "Size in bytes")->required();
  define_->add_flag("--owner-write", ownerWrite_, "Written with the owner's secret");
  define_->add_flag("--auth-write", authWrite_, "Written with the space's own secret");
  define_->add_flag("--owner-read", ownerRead_, "Read with the owner's secret");
  define_->add_flag("--auth-read", authRead_, "Read with the space's own secret");
  write_ = nv->add_subcommand("write", "Write the bytes of FILE into space INDEX");
  read_ = nv->add_subcommand("read", "Read space INDEX (hex on stdout, or into --out FILE)");
  release_ = nv->add_subcommand("release", "Release space INDEX with the owner's authorisation");
  for (CLI::App* sub : {define_, write_, read_, release_}) {
    sub->add_option("INDEX", indexText_, "NV index (0x for hex)")->required();
    sub->add_option("--owner-secret", ownerSource_, "FILE or '-': the owner secret");
    sub->fallthrough();
  }
  write_->add_option("FILE", inFile_, "The data")->required();
  read_->add_option("--size", sizeText_, "Bytes to read (default: to the end of the space)");
  read_->add_option("--out", outFile_, "Write the bytes read to FILE");
  for (CLI::App* sub : {define_, write_, read_}) {
    sub->add_option("--secret", secretSource_, "FILE or '-': the space's own secret");
  }
  for (CLI::App* sub : {write_, read_}) {
    sub->add_option("--offset", offsetText_, "Offset in the space (default 0)");
  }
}

bool NvCommand::parsed() const {
  return define_->parsed() || write_->parsed() || read_->parsed() || release_->parsed();
}

std::optional<int> NvCommand::CheckArguments(Output& out) {
  if (!parsed()) return std::nullopt;
  std::optional<UINT32> index = ParseHandle(indexText_);
  if (!index) return out.BadArgument("nv INDEX must be a number (0x for hex)");
  index_ = *index;
  if (!sizeText_.empty()) {
    size_ = ParseNumber(sizeText_, 1, kMaxSpaceSize);
    if (!size_) return out.BadArgument("--size must be a number from 1 to 65535");
  }
  if (!offsetText_.empty()) {
    std::optional<UINT32> offset = ParseNumber(offsetText_, 0, kMaxSpaceSize);
    if (!offset) return out.BadArgument("--offset must be a number from 0 to 65535");
    offset_ = *offset;
  }
  if (define_->parsed() && ownerWrite_ == authWrite_) {
    return out.BadArgument(
        "nv define needs one write permission: --owner-write or --auth-write (a space nobody "
        "authorises writing to is open to everyone)");
  }
  if (define_->parsed() && ownerRead_ && authRead_) {
    return out.BadArgument("nv define takes at most one of --owner-read and --auth-read");
  }
  if (write_->parsed()) {
    std::optional<std::vector<BYTE>> data = ReadWholeFile(inFile_);
    if (!data || data->empty()) return out.BadArgument("cannot read data from " + inFile_);
    data_ = *data;
  }
  std::string problem;
  if (!ReadObjectAndOwnerSecrets(secretSource_, "space secret", define_->parsed(), ownerSource_,
                                 &secret_, &owner_, &problem)) {
    return out.BadArgument(problem);
  }
  return std::nullopt;
}

std::optional<Failure> NvCommand::Run(TcsConnection& tcs, Output& out) const {
  if (define_->parsed()) return Define(tcs, out);
  if (write_->parsed()) return Write(tcs, out);
  if (read_->parsed()) return Read(tcs, out);
  return Release(tcs, out);
}

std::optional<Failure> NvCommand::Define(TcsConnection& tcs, Output& out) const {
  // The TPM would replace a space defined again, and its data with it.
  SpaceInfo existing;
  if (!LookUp(tcs, index_, &existing)) {
    return Failure{"nv define", TpmResult(TPM_BADINDEX),
                   "NV index " + IndexText(index_) + " is already defined; release it first"};
  }
  const UINT32 attributes = (ownerWrite_ ? kPerOwnerWrite : 0) | (authWrite_ ? kPerAuthWrite : 0) |
                            (ownerRead_ ? kPerOwnerRead : 0) | (authRead_ ? kPerAuthRead : 0);
  if (auto f = DefineSpace(tcs, owner_, secret_, NvPublic(index_, attributes, *size_))) return f;
  nlohmann::ordered_json& o = out.object();
  o["index"] = IndexText(index_);
  o["size"] = *size_;
  o["attributes"] = AttributeNames(attributes);
  if (!out.json()) {
    std::string names;
    for (const std::string& n : AttributeNames(attributes)) names += " " + n;
    std::printf("NV index %s defined: %u bytes,%s\n", IndexText(index_).c_str(), *size_,
                names.c_str());
  }
  return std::nullopt;
}

std::optional<Failure> NvCommand::Write(TcsConnection& tcs, Output& out) const {
  SpaceInfo info;
  if (auto f = LookUp(tcs, index_, &info)) return f;
  const TCS_CONTEXT_HANDLE h = tcs.context();
  const UINT32 size = static_cast<UINT32>(data_.size());
  std::vector<BYTE> data = data_;
  const Explanation explain = [](TSS_RESULT r) { return Explain(r, false); };
  std::optional<Failure> failure;
  if ((info.attributes & (kPerAuthWrite | kPerOwnerWrite)) == 0) {
    if (TSS_RESULT r = Tcsip_NV_WriteValue(h, index_, offset_, size, data.data(), nullptr)) {
      failure = Failure{"Tcsip_NV_WriteValue", r, explain(r)};
    }
  } else {
    const bool spaceAuth = (info.attributes & kPerAuthWrite) != 0;
    std::vector<BYTE> params;
    AppendUINT32(params, index_);
    AppendUINT32(params, offset_);
    AppendUINT32(params, size);
    params.insert(params.end(), data.begin(), data.end());
    const UINT32 index = index_, offset = offset_;
    failure = RunOverOiap(
        spaceAuth ? secret_ : owner_,
        AuthorisedCall{
            h, spaceAuth ? TPM_ORD_NV_WriteValueAuth : TPM_ORD_NV_WriteValue, params,
            spaceAuth ? "Tcsip_NV_WriteValueAuth" : "Tcsip_NV_WriteValue",
            [&](TPM_AUTH* auth, std::vector<BYTE>*) {
              return spaceAuth ? Tcsip_NV_WriteValueAuth(h, index, offset, size, data.data(), auth)
                               : Tcsip_NV_WriteValue(h, index, offset, size, data.data(), auth);
            },
            explain});
  }
  if (failure) return failure;
  out.object()["index"] = IndexText(index_);
  out.object()["offset"] = offset_;
  out.object()["written"] = size;
  if (!out.json()) {
    std::printf("%u bytes written to NV index %s at offset %u\n", size, IndexText(index_).c_str(),
                offset_);
  }
  return std::nullopt;
}

std::optional<Failure> NvCommand::Read(TcsConnection& tcs, Output& out) const {
  SpaceInfo info;
  if (auto f = LookUp(tcs, index_, &info)) return f;
  const TCS_CONTEXT_HANDLE h = tcs.context();
  UINT32 size = size_.value_or(info.size > offset_ ? info.size - offset_ : 0);
  const UINT32 index = index_, offset = offset_;
  const Explanation explain = [](TSS_RESULT r) { return Explain(r, false); };
  std::vector<BYTE> data;
  BYTE* block = nullptr;
  std::optional<Failure> failure;
  if ((info.attributes & (kPerAuthRead | kPerOwnerRead)) == 0) {
    if (TSS_RESULT r = Tcsip_NV_ReadValue(h, index, offset, &size, nullptr, &block)) {
      failure = Failure{"Tcsip_NV_ReadValue", r, explain(r)};
    } else {
      data.assign(block, block + size);
      Tcs_FreeBuffer(block);
    }
  } else {
    const bool spaceAuth = (info.attributes & kPerAuthRead) != 0;
    std::vector<BYTE> params;
    AppendUINT32(params, index);
    AppendUINT32(params, offset);
    AppendUINT32(params, size);
    failure = RunOverOiap(
        spaceAuth ? secret_ : owner_,
        AuthorisedCall{h, spaceAuth ? TPM_ORD_NV_ReadValueAuth : TPM_ORD_NV_ReadValue, params,
                       spaceAuth ? "Tcsip_NV_ReadValueAuth" : "Tcsip_NV_ReadValue",
                       [&](TPM_AUTH* auth, std::vector<BYTE>* outParams) {
                         const TSS_RESULT r =
                             spaceAuth
                                 ? Tcsip_NV_ReadValueAuth(h, index, offset, &size, auth, &block)
                                 : Tcsip_NV_ReadValue(h, index, offset, &size, auth, &block);
                         if (r != 0) return r;
                         data.assign(block, block + size);
                         Tcs_FreeBuffer(block);
                         AppendUINT32(*outParams, size);
                         outParams->insert(outParams->end(), data.begin(), data.end());
                         return r;
                       },
                       explain});
  }
  if (failure) return failure;
  nlohmann::ordered_json& o = out.object();
  o["index"] = IndexText(index_);
  o["offset"] = offset_;
  o["size"] = data.size();
  if (!outFile_.empty()) {
    std::ofstream file(outFile_, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    if (!file) return Failure{"nv read", TCS_E_FAIL, "cannot write " + outFile_};
    o["out"] = outFile_;
    if (!out.json()) std::printf("%zu bytes read into %s\n", data.size(), outFile_.c_str());
  } else {
    o["data"] = HexString(data);
    if (!out.json()) std::printf("%s\n", HexString(data).c_str());
  }
  return std::nullopt;
}

std::optional<Failure> NvCommand::Release(TcsConnection& tcs, Output& out) const {
  SpaceInfo info;
  if (auto f = LookUp(tcs, index_, &info)) return f;
  if (auto f = DefineSpace(tcs, owner_, secret_, NvPublic(index_, info.attributes, 0))) return f;
  out.object()["index"] = IndexText(index_);
  out.object()["released"] = true;
  if (!out.json()) std::printf("NV index %s released\n", IndexText(index_).c_str());
  return std::nullopt;
}

}  // namespace kesttcs::cli
