// The name a constant or a function is declared with, at compile time: lets a table name an entity
// once (`&TPM_ORD_Seal`, `&Tcsip_Seal_Internal`) and still know what it is called.
#pragma once

#include <string_view>

namespace kesttcs::rpc {
namespace detail {

constexpr bool IsIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The last identifier of the template argument in a compiler's spelling of a function, which
// reads "... [with auto kEntity = (& kesttcs::TPM_ORD_Seal); ...]" (GCC) or
// "... [kEntity = &kesttcs::TPM_ORD_Seal]" (clang).
consteval std::string_view LastIdentifierOfArgument(std::string_view pretty) {
  constexpr std::string_view kArgument = "kEntity = ";
  const size_t begin = pretty.find(kArgument) + kArgument.size();
  size_t end = pretty.find_first_of(";]", begin);
  while (end > begin && !IsIdentifierChar(pretty[end - 1])) --end;
  size_t start = end;
  while (start > begin && IsIdentifierChar(pretty[start - 1])) --start;
  return pretty.substr(start, end - start);
}

}  // namespace detail

// The unqualified name of what `kEntity` points to (an object or a function of namespace scope).
template <auto kEntity>
consteval std::string_view NameOf() {
  return detail::LastIdentifierOfArgument(__PRETTY_FUNCTION__);
}

}  // namespace kesttcs::rpc
