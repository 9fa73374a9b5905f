#include "rpc/operations.h"

namespace kesttcs::rpc {
namespace {

// The rules every entry of the table keeps; the build fails when one is broken.
consteval bool ParamShapeIsValid(const Operation& op, size_t index) {
  const Param& p = op.params[index];
  switch (p.form) {
    case Form::kValue:
      return p.dir == Dir::kIn && p.size_is.empty();
    case Form::kRef:
      return p.dir != Dir::kIn && p.size_is.empty();
    case Form::kUnique:
      return p.dir != Dir::kOut && p.size_is.empty();
    case Form::kPtr:
      return p.dir == Dir::kOut && p.size_is.empty();
    case Form::kArray: {
      const std::optional<size_t> size = SizeParamIndex(op, index);
      if (p.dir != Dir::kIn || !size) return false;
      const Param& n = op.params[*size];
      return n.kind == Kind::kUint32 && n.form == Form::kValue;
    }
    case Form::kArrayPtr: {
      const std::optional<size_t> size = SizeParamIndex(op, index);
      if (p.dir == Dir::kIn || !size) return false;
      const Param& n = op.params[*size];
      // An array sent in both directions needs its count in both directions too.
      return n.kind == Kind::kUint32 && n.form == Form::kRef &&
             (p.dir == Dir::kOut || n.dir == Dir::kInOut);
    }
  }
  return false;
}

consteval bool TableIsValid() {
  for (size_t i = 0; i < kOperations.size(); ++i) {
    const Operation& op = kOperations[i];
    if (op.opnum != i || op.params.empty()) return false;
    const bool lock_frame = op.frame == Frame::kB || op.frame == Frame::kC ||
                            op.frame == Frame::kE || op.frame == Frame::kF;
    if (op.locked != lock_frame) return false;
    const Param& first = op.params[0];
    if (first.name != "hContext" || first.type != "TCS_CONTEXT_HANDLE") return false;
    if (first.dir != (op.name == "Tcsi_OpenContext" ? Dir::kOut : Dir::kIn)) return false;
    for (size_t j = 0; j < op.params.size(); ++j) {
      if (!ParamShapeIsValid(op, j)) return false;
      for (size_t k = 0; k < j; ++k) {
        if (op.params[k].name == op.params[j].name) return false;
      }
    }
  }
  return true;
}
static_assert(TableIsValid());

}  // namespace

const Operation* FindOperation(std::string_view name) {
  for (const Operation& op : kOperations) {
    if (op.name == name) return &op;
  }
  return nullptr;
}

std::string_view DirName(Dir dir) {
  switch (dir) {
    case Dir::kIn:
      return "in";
    case Dir::kOut:
      return "out";
    case Dir::kInOut:
      return "in,out";
  }
  return "?";
}

std::string_view FrameName(Frame frame) {
  switch (frame) {
    case Frame::kA:
      return "A";
    case Frame::kB:
      return "B";
    case Frame::kC:
      return "C";
    case Frame::kD:
      return "D";
    case Frame::kE:
      return "E";
    case Frame::kF:
      return "F";
    case Frame::kReserved:
      return "reserved";
  }
  return "?";
}

std::string_view KindName(Kind kind) {
  switch (kind) {
    case Kind::kUint32:
      return "UINT32";
    case Kind::kUint16:
      return "UINT16";
    case Kind::kByte:
      return "BYTE";
    case Kind::kBool:
      return "TSS_BOOL";
    case Kind::kUint64:
      return "UINT64";
    case Kind::kDigest:
      return "digest";
    case Kind::kAuth:
      return "TPM_AUTH";
    case Kind::kUuid:
      return "TSS_UUID";
    case Kind::kVersion:
      return "TPM_VERSION";
    case Kind::kCounterValue:
      return "TPM_COUNTER_VALUE";
    case Kind::kCmkAuth:
      return "TPM_CMK_AUTH";
    case Kind::kPcrEvent:
      return "TSS_PCR_EVENT";
    case Kind::kKeyInfo:
      return "TSS_KM_KEYINFO";
    case Kind::kLoadKeyInfo:
      return "TCS_LOADKEY_INFO";
  }
  return "?";
}

}  // namespace kesttcs::rpc
