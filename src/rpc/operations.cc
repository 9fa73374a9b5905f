#include "rpc/operations.h"

namespace kesttcs::rpc {
namespace {

// The rules the type declarations keep; the build fails when one is broken. Every type a
// declaration names is declared before it, names are unique, and a sized pointer member follows
// the 32-bit member that counts it.
consteval bool TypesAreValid() {
  std::array<std::string_view, 64> declared{};
  size_t count = 0;
  auto known = [&](std::string_view name) {
    for (size_t i = 0; i < count; ++i) {
      if (declared[i] == name) return true;
    }
    return false;
  };
  for (const TypeGroup& group : kInterfaceTypes) {
    for (const WireType& type : group.types) {
      if (known(type.name) || count == declared.size()) return false;
      const bool base = !type.idl.empty() && !type.c.empty();
      if (base + !type.alias_of.empty() + type.is_struct() != 1) return false;
      if (!type.alias_of.empty() && !known(type.alias_of)) return false;
      for (size_t i = 0; i < type.fields.size(); ++i) {
        const Field& f = type.fields[i];
        if (!known(f.type)) return false;
        if (f.size_is.empty()) continue;
        bool counted = false;
        for (size_t j = 0; j < i; ++j) {
          counted = counted || (type.fields[j].name == f.size_is &&
                                ParamKindOf(type.fields[j].type) == Kind::kUint32);
        }
        if (!counted || f.count != 0) return false;
      }
      declared[count++] = type.name;
    }
  }
  return true;
}
static_assert(TypesAreValid());

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
    case Form::kOptPtr:
      return p.dir == Dir::kInOut && p.size_is.empty();
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

// A frame's start-line form with the session handle needs a record to take the handle from.
consteval bool SessionFormHasARecord(const Operation& op) {
  if (!op.trace.session_form) return true;
  for (const Param& p : op.params) {
    if (p.kind == Kind::kAuth) return true;
  }
  return false;
}

consteval bool TableIsValid() {
  for (size_t i = 0; i < kOperations.size(); ++i) {
    const Operation& op = kOperations[i];
    if (op.opnum != i || op.params.empty() || !SessionFormHasARecord(op)) return false;
    const Param& first = op.params[0];
    if (first.name != "hContext" || first.type != "TCS_CONTEXT_HANDLE") return false;
    if (first.dir != (op.name == "Tcsi_OpenContext" ? Dir::kOut : Dir::kIn)) return false;
    for (size_t j = 0; j < op.params.size(); ++j) {
      if (!ParamShapeIsValid(op, j)) return false;
      for (size_t k = 0; k < j; ++k) {
        if (op.params[k].name == op.params[j].name) return false;
      }
    }
    for (size_t k = 0; k < i; ++k) {
      if (kOperations[k].name == op.name) return false;
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
