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

}  // namespace kesttcs::rpc
