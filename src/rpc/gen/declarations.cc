#include <sstream>

#include "rpc/gen/generated_text.h"

namespace kesttcs::rpc::gen {
namespace {

constexpr size_t kColumns = 100;

void WriteType(std::ostringstream& s, const WireType& type, Language language,
               std::string_view indent) {
  if (!type.alias_of.empty()) {
    s << indent << "typedef " << type.alias_of << " " << type.name << ";\n";
    return;
  }
  if (!type.is_struct()) {
    const std::string_view base = language == Language::kIdl ? type.idl : type.c;
    s << indent << "typedef " << base << " " << type.name << ";\n";
    return;
  }
  s << indent << "typedef struct td" << type.name << " {\n";
  for (const Field& f : type.fields) {
    s << indent << "  ";
    if (!f.size_is.empty() && language == Language::kIdl) s << "[size_is(" << f.size_is << ")] ";
    s << f.type << (f.size_is.empty() ? " " : "* ") << f.name;
    if (f.count != 0) s << "[" << f.count << "]";
    s << ";\n";
  }
  s << indent << "} " << type.name << ";\n";
}

}  // namespace

std::string TypeDeclarations(Language language, std::string_view indent) {
  std::ostringstream s;
  for (const TypeGroup& group : kInterfaceTypes) {
    if (&group != &kInterfaceTypes[0]) s << "\n";
    s << BlockComment(group.heading, indent);
    for (const WireType& type : group.types) {
      // A structure stands apart from what comes before it, unless it opens its group.
      if (type.is_struct() && &type != &group.types.front()) s << "\n";
      if (!type.comment.empty()) s << BlockComment(type.comment, indent);
      WriteType(s, type, language, indent);
    }
  }
  return s.str();
}

std::string Declarator(const Param& p) {
  size_t stars = 0;
  switch (p.form) {
    case Form::kValue:
      break;
    case Form::kRef:
    case Form::kUnique:
    case Form::kArray:
      stars = 1;
      break;
    case Form::kArrayPtr:
    case Form::kPtr:
    case Form::kOptPtr:
      stars = 2;
      break;
  }
  return std::string(p.type) + std::string(stars, '*') + " " + std::string(p.name);
}

std::string BlockComment(std::string_view text, std::string_view indent) {
  std::string out(indent);
  out += "/*";
  size_t line_start = 0;
  while (!text.empty()) {
    const size_t blank = text.find(' ');
    const std::string_view word = text.substr(0, blank);
    text = blank == std::string_view::npos ? std::string_view() : text.substr(blank + 1);
    // Room for the word and, on the last line, the closing " */".
    const size_t needed = word.size() + 1 + (text.empty() ? 3 : 0);
    if (out.size() - line_start + needed > kColumns &&
        out.size() - line_start > indent.size() + 2) {
      out += "\n";
      line_start = out.size();
      out += indent;
      out += " *";
    }
    out += " ";
    out += word;
  }
  return out + " */\n";
}

}  // namespace kesttcs::rpc::gen
