// Proves the interface definition (src/rpc/kesttcs.idl) and the operation table
// (src/rpc/operations.h) identical, checks the table's handler-frame data, and checks the
// operation list in docs/operations.md against the table.
#include "rpc/operations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kesttcs::rpc {
namespace {

std::string ReadSourceFile(const std::string& relative) {
  std::ifstream in(std::string(KESTTCS_SOURCE_DIR) + "/" + relative);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// ---- A parser for the subset of IDL that kesttcs.idl uses ----

struct IdlParam {
  std::set<std::string> attrs;  // in, out, unique
  std::string size_is;          // the size parameter's name, or empty
  bool size_is_deref = false;   // size_is(, *n) rather than size_is(n)
  std::string type;
  int stars = 0;
  std::string name;
};

struct IdlOperation {
  std::string return_type;
  std::string name;
  std::vector<IdlParam> params;
};

struct IdlMember {
  std::string type;
  int stars = 0;
  std::string name;
  int array = 0;        // fixed array length, 0 when not an array
  std::string size_is;  // for a sized pointer member
};

struct IdlFile {
  std::string interface_name;
  std::vector<std::string> header_attrs;        // e.g. "uuid(fbcd9c02-...)", "version(1.0)"
  std::map<std::string, std::string> typedefs;  // alias -> aliased type
  std::map<std::string, std::vector<IdlMember>> structs;  // typedef name -> members
  std::vector<IdlOperation> operations;
};

class IdlParser {
 public:
  explicit IdlParser(const std::string& text) { Tokenize(StripComments(text)); }

  // Parses the whole file; on a syntax error returns false with error() saying where.
  bool Parse(IdlFile& file) {
    if (!ParseHeader(file) || !Expect("{")) return false;
    while (ok_ && Peek() != "}") {
      if (Peek() == "typedef") {
        ParseTypedef(file);
      } else {
        ParseOperation(file);
      }
    }
    return Expect("}") && ok_ && pos_ == tokens_.size();
  }

  const std::string& error() const { return error_; }

 private:
  static std::string StripComments(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text.compare(i, 2, "/*") == 0) {
        const size_t end = text.find("*/", i + 2);
        i = end == std::string::npos ? text.size() : end + 1;
        out += ' ';
      } else if (text.compare(i, 2, "//") == 0) {
        i = text.find('\n', i);
        if (i == std::string::npos) break;
        out += '\n';
      } else {
        out += text[i];
      }
    }
    return out;
  }

  void Tokenize(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
      const unsigned char c = text[i];
      if (std::isspace(c)) {
        ++i;
      } else if (std::isalnum(c) || c == '_') {
        size_t j = i;
        while (j < text.size() &&
               (std::isalnum(static_cast<unsigned char>(text[j])) || text[j] == '_')) {
          ++j;
        }
        tokens_.push_back(text.substr(i, j - i));
        i = j;
      } else {
        tokens_.push_back(std::string(1, static_cast<char>(c)));
        ++i;
      }
    }
  }

  std::string Peek(size_t ahead = 0) const {
    return pos_ + ahead < tokens_.size() ? tokens_[pos_ + ahead] : std::string();
  }
  std::string Next() { return pos_ < tokens_.size() ? tokens_[pos_++] : std::string(); }
  bool Fail(const std::string& what) {
    if (ok_) error_ = what + " at token " + std::to_string(pos_) + " ('" + Peek() + "')";
    ok_ = false;
    pos_ = tokens_.size();
    return false;
  }
  bool Expect(const std::string& token) {
    if (Peek() != token) return Fail("expected '" + token + "'");
    ++pos_;
    return true;
  }
  bool IsIdentifier(const std::string& t) const {
    return !t.empty() && (std::isalpha(static_cast<unsigned char>(t[0])) || t[0] == '_');
  }
  std::string Identifier() {
    if (!IsIdentifier(Peek())) {
      Fail("expected an identifier");
      return {};
    }
    return Next();
  }

  // The text of a bracketed attribute list, split at top-level commas, tokens concatenated
  // without blanks (so "size_is(, *n)" reads "size_is(,*n)").
  std::vector<std::string> AttributeList() {
    std::vector<std::string> attrs;
    if (!Expect("[")) return attrs;
    std::string current;
    int depth = 0;
    while (ok_) {
      const std::string t = Next();
      if (t.empty()) {
        Fail("unterminated attribute list");
        break;
      }
      if (depth == 0 && (t == "," || t == "]")) {
        attrs.push_back(current);
        current.clear();
        if (t == "]") break;
        continue;
      }
      if (t == "(") ++depth;
      if (t == ")") --depth;
      current += t;
    }
    return attrs;
  }

  bool ParseHeader(IdlFile& file) {
    file.header_attrs = AttributeList();
    if (!Expect("interface")) return false;
    file.interface_name = Identifier();
    return ok_;
  }

  // A base type may take several words ("unsigned hyper"); anything else is one identifier.
  std::string TypeName() {
    if (Peek() == "unsigned") {
      Next();
      return "unsigned " + Identifier();
    }
    return Identifier();
  }

  void ParseTypedef(IdlFile& file) {
    Expect("typedef");
    if (Peek() == "struct") {
      Next();
      Identifier();  // the structure tag
      Expect("{");
      std::vector<IdlMember> members;
      while (ok_ && Peek() != "}") {
        IdlMember m;
        if (Peek() == "[") {
          const std::vector<std::string> attrs = AttributeList();
          if (attrs.size() != 1 || attrs[0].rfind("size_is(", 0) != 0) {
            Fail("unexpected member attribute");
            return;
          }
          m.size_is = attrs[0].substr(8, attrs[0].size() - 9);
        }
        m.type = TypeName();
        while (Peek() == "*") {
          Next();
          ++m.stars;
        }
        m.name = Identifier();
        if (Peek() == "[") {
          Next();
          m.array = std::atoi(Next().c_str());
          Expect("]");
        }
        Expect(";");
        members.push_back(m);
      }
      Expect("}");
      const std::string name = Identifier();
      Expect(";");
      file.structs[name] = members;
      file.typedefs[name] = "struct";
      return;
    }
    const std::string aliased = TypeName();
    const std::string name = Identifier();
    Expect(";");
    file.typedefs[name] = aliased;
  }

  void ParseOperation(IdlFile& file) {
    IdlOperation op;
    op.return_type = Identifier();
    op.name = Identifier();
    Expect("(");
    while (ok_ && Peek() != ")") {
      IdlParam p;
      for (const std::string& a : AttributeList()) {
        if (a.rfind("size_is(", 0) == 0) {
          std::string arg = a.substr(8, a.size() - 9);
          if (arg.rfind(",*", 0) == 0) {
            p.size_is_deref = true;
            arg = arg.substr(2);
          }
          p.size_is = arg;
        } else {
          p.attrs.insert(a);
        }
      }
      p.type = TypeName();
      while (Peek() == "*") {
        Next();
        ++p.stars;
      }
      p.name = Identifier();
      op.params.push_back(p);
      if (Peek() == ",") Next();
    }
    Expect(")");
    Expect(";");
    file.operations.push_back(op);
  }

  std::vector<std::string> tokens_;
  size_t pos_ = 0;
  bool ok_ = true;
  std::string error_;
};

class IdlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    idl_ = new IdlFile;
    IdlParser parser(ReadSourceFile("src/rpc/kesttcs.idl"));
    parsed_ = parser.Parse(*idl_);
    parse_error_ = parser.error();
  }
  static void TearDownTestSuite() { delete idl_; }

  void SetUp() override { ASSERT_TRUE(parsed_) << parse_error_; }

  // The chain of typedefs from `type` down to a base type or "struct", inclusive.
  static std::vector<std::string> Resolve(std::string type) {
    std::vector<std::string> chain{type};
    for (int guard = 0; guard < 16; ++guard) {
      const auto it = idl_->typedefs.find(type);
      if (it == idl_->typedefs.end() || it->second == "struct") break;
      type = it->second;
      chain.push_back(type);
    }
    return chain;
  }

  static inline IdlFile* idl_ = nullptr;
  static inline bool parsed_ = false;
  static inline std::string parse_error_;
};

// The declaration the table's entry stands for, in the parser's terms.
IdlParam Expected(const Param& p) {
  IdlParam e;
  e.type = std::string(p.type);
  e.name = std::string(p.name);
  if (p.is_input()) e.attrs.insert("in");
  if (p.is_output()) e.attrs.insert("out");
  switch (p.form) {
    case Form::kValue:
      break;
    case Form::kRef:
      e.stars = 1;
      break;
    case Form::kUnique:
      e.stars = 1;
      e.attrs.insert("unique");
      break;
    case Form::kArray:
      e.stars = 1;
      e.size_is = std::string(p.size_is);
      break;
    case Form::kArrayPtr:
      e.stars = 2;
      e.size_is = std::string(p.size_is);
      e.size_is_deref = true;
      break;
    case Form::kPtr:
      e.stars = 2;
      break;
  }
  return e;
}

std::string Describe(const IdlParam& p) {
  std::string s = "[";
  for (const std::string& a : p.attrs) s += a + ",";
  if (!p.size_is.empty())
    s += "size_is(" + std::string(p.size_is_deref ? ",*" : "") + p.size_is + ")";
  return s + "] " + p.type + std::string(p.stars, '*') + " " + p.name;
}

TEST_F(IdlTest, InterfaceIdentity) {
  EXPECT_EQ(idl_->interface_name, "KestTCS");
  const std::vector<std::string>& h = idl_->header_attrs;
  EXPECT_NE(std::find(h.begin(), h.end(), "uuid(fbcd9c02-72cb-47bb-99dd-aedb551491de)"), h.end());
  EXPECT_NE(std::find(h.begin(), h.end(), "version(1.0)"), h.end());
  EXPECT_NE(std::find(h.begin(), h.end(), "pointer_default(unique)"), h.end());
  EXPECT_EQ(idl_->operations.size(), kOperationCount);
}

TEST_F(IdlTest, OperationsMatchTheTable) {
  ASSERT_EQ(idl_->operations.size(), kOperations.size());
  for (size_t opnum = 0; opnum < kOperations.size(); ++opnum) {
    const Operation& op = kOperations[opnum];
    const IdlOperation& idl = idl_->operations[opnum];
    SCOPED_TRACE("opnum " + std::to_string(opnum) + " " + std::string(op.name));
    EXPECT_EQ(idl.name, op.name);
    EXPECT_EQ(idl.return_type, "TSS_RESULT");
    ASSERT_EQ(idl.params.size(), op.params.size());
    for (size_t i = 0; i < op.params.size(); ++i) {
      EXPECT_EQ(Describe(idl.params[i]), Describe(Expected(op.params[i]))) << "parameter " << i;
    }
  }
}

TEST_F(IdlTest, TypeKindsAgreeWithTheDeclaredTypes) {
  // Every type a parameter uses is declared, and resolves to the base its kind implies.
  const std::map<Kind, std::string> scalar_base = {{Kind::kUint32, "unsigned int"},
                                                   {Kind::kUint16, "unsigned short"},
                                                   {Kind::kByte, "unsigned char"},
                                                   {Kind::kBool, "unsigned char"},
                                                   {Kind::kUint64, "unsigned hyper"}};
  const std::map<Kind, std::set<std::string>> struct_roots = {
      {Kind::kDigest, {"TPM_DIGEST", "TPM_NONCE", "TPM_AUTHDATA"}},
      {Kind::kAuth, {"TPM_AUTH"}},
      {Kind::kUuid, {"TSS_UUID"}},
      {Kind::kVersion, {"TPM_VERSION"}},
      {Kind::kCounterValue, {"TPM_COUNTER_VALUE"}},
      {Kind::kCmkAuth, {"TPM_CMK_AUTH"}},
      {Kind::kPcrEvent, {"TSS_PCR_EVENT"}},
      {Kind::kKeyInfo, {"TSS_KM_KEYINFO"}},
      {Kind::kLoadKeyInfo, {"TCS_LOADKEY_INFO"}}};
  for (const detail::TypeKind& t : detail::kTypeKinds) {
    SCOPED_TRACE(std::string(t.type));
    const std::vector<std::string> chain = Resolve(std::string(t.type));
    ASSERT_TRUE(idl_->typedefs.count(chain.front())) << "not declared in the interface";
    const std::string& root = chain.back();
    if (scalar_base.count(t.kind)) {
      EXPECT_EQ(root, scalar_base.at(t.kind));
      // A TSS_BOOL is a byte on the wire but keeps its own name; nothing else may pass through it.
      const bool via_bool = std::find(chain.begin(), chain.end(), "TSS_BOOL") != chain.end();
      EXPECT_EQ(via_bool, t.kind == Kind::kBool);
    } else {
      EXPECT_TRUE(struct_roots.at(t.kind).count(root)) << "resolves to " << root;
    }
  }
  // The parameters use nothing outside that list (the table would not compile otherwise, but a
  // type the interface uses and the list lacks would slip through).
  for (const IdlOperation& op : idl_->operations) {
    for (const IdlParam& p : op.params) {
      const bool known = std::any_of(std::begin(detail::kTypeKinds), std::end(detail::kTypeKinds),
                                     [&](const detail::TypeKind& t) { return t.type == p.type; });
      EXPECT_TRUE(known) << op.name << " " << p.name << " " << p.type;
    }
  }
}

TEST_F(IdlTest, StructuresHaveTheLayoutTheStubsMarshal) {
  // Member lists as the generic stubs encode them: (type, name, fixed array length, size_is).
  using Members = std::vector<std::tuple<std::string, std::string, int, std::string>>;
  const std::map<std::string, Members> expected = {
      {"TPM_DIGEST", {{"BYTE", "digest", 20, ""}}},
      {"TPM_NONCE", {{"BYTE", "nonce", 20, ""}}},
      {"TPM_AUTHDATA", {{"BYTE", "authdata", 20, ""}}},
      {"TPM_AUTH",
       {{"TCS_AUTHHANDLE", "AuthHandle", 0, ""},
        {"TPM_NONCE", "NonceOdd", 0, ""},
        {"TPM_NONCE", "NonceEven", 0, ""},
        {"TSS_BOOL", "fContinueAuthSession", 0, ""},
        {"TPM_AUTHDATA", "HMAC", 0, ""}}},
      {"TSS_VERSION",
       {{"BYTE", "bMajor", 0, ""},
        {"BYTE", "bMinor", 0, ""},
        {"BYTE", "bRevMajor", 0, ""},
        {"BYTE", "bRevMinor", 0, ""}}},
      {"TPM_VERSION",
       {{"BYTE", "major", 0, ""},
        {"BYTE", "minor", 0, ""},
        {"BYTE", "revMajor", 0, ""},
        {"BYTE", "revMinor", 0, ""}}},
      {"TSS_UUID",
       {{"UINT32", "ulTimeLow", 0, ""},
        {"UINT16", "usTimeMid", 0, ""},
        {"UINT16", "usTimeHigh", 0, ""},
        {"BYTE", "bClockSeqHigh", 0, ""},
        {"BYTE", "bClockSeqLow", 0, ""},
        {"BYTE", "rgbNode", 6, ""}}},
      {"TSS_PCR_EVENT",
       {{"TSS_VERSION", "versionInfo", 0, ""},
        {"UINT32", "ulPcrIndex", 0, ""},
        {"TSS_EVENTTYPE", "eventType", 0, ""},
        {"UINT32", "ulPcrValueLength", 0, ""},
        {"BYTE", "rgbPcrValue", 0, "ulPcrValueLength"},
        {"UINT32", "ulEventLength", 0, ""},
        {"BYTE", "rgbEvent", 0, "ulEventLength"}}},
      {"TSS_KM_KEYINFO",
       {{"TSS_VERSION", "versionInfo", 0, ""},
        {"TSS_UUID", "keyUUID", 0, ""},
        {"TSS_UUID", "parentKeyUUID", 0, ""},
        {"BYTE", "bAuthDataUsage", 0, ""},
        {"TSS_BOOL", "fIsLoaded", 0, ""},
        {"UINT32", "ulVendorDataLength", 0, ""},
        {"BYTE", "rgbVendorData", 0, "ulVendorDataLength"}}},
      {"TCS_LOADKEY_INFO",
       {{"TSS_UUID", "keyUUID", 0, ""},
        {"TSS_UUID", "parentKeyUUID", 0, ""},
        {"TPM_DIGEST", "paramDigest", 0, ""},
        {"TPM_AUTH", "authData", 0, ""}}},
      {"TPM_COUNTER_VALUE",
       {{"TPM_STRUCTURE_TAG", "tag", 0, ""},
        {"BYTE", "label", 4, ""},
        {"TPM_ACTUAL_COUNT", "counter", 0, ""}}},
      {"TPM_CMK_AUTH",
       {{"TPM_DIGEST", "migrationAuthorityDigest", 0, ""},
        {"TPM_DIGEST", "destinationKeyDigest", 0, ""},
        {"TPM_DIGEST", "sourceKeyDigest", 0, ""}}},
  };
  EXPECT_EQ(idl_->structs.size(), expected.size());
  for (const auto& [name, members] : expected) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(idl_->structs.count(name));
    const std::vector<IdlMember>& got = idl_->structs.at(name);
    ASSERT_EQ(got.size(), members.size());
    for (size_t i = 0; i < got.size(); ++i) {
      const auto& [type, member, array, size_is] = members[i];
      EXPECT_EQ(got[i].type, type);
      EXPECT_EQ(got[i].name, member);
      EXPECT_EQ(got[i].array, array);
      EXPECT_EQ(got[i].size_is, size_is);
      EXPECT_EQ(got[i].stars, size_is.empty() ? 0 : 1);
    }
  }
}

TEST(OperationTableTest, HandlerFramesFollowTheHandlerTable) {
  // The operations that take the API serialisation lock.
  const std::set<uint32_t> locked = {0,  1,  2,  4,  9,  14, 15,  16,  17,  18,  19,  28, 29, 30,
                                     32, 33, 35, 36, 38, 41, 42,  45,  46,  47,  48,  49, 50, 53,
                                     54, 55, 59, 66, 81, 83, 108, 111, 114, 116, 117, 120};
  const std::set<uint32_t> auth_text = {14, 15, 18, 19, 31, 47, 49, 50, 51};
  // Operations before Tcsip_SetRedirection (81) in handler order that trace no start line.
  const std::set<uint32_t> early_without_start = {9, 36, 37, 38, 52};
  for (const Operation& op : kOperations) {
    SCOPED_TRACE(std::string(op.name));
    EXPECT_EQ(op.locked(), locked.count(op.opnum) == 1);
    EXPECT_EQ(op.auth_start_text, auth_text.count(op.opnum) == 1);
    const bool vendor = op.opnum <= 2;
    const bool reserved = op.opnum >= 123;
    EXPECT_EQ(op.frame == Frame::kF, vendor);
    EXPECT_EQ(op.frame == Frame::kReserved, reserved);
    EXPECT_EQ(op.frame == Frame::kC, op.name == "Tcsip_Unbind");
    if (vendor || reserved) continue;
    const bool start_line = op.frame == Frame::kA || op.frame == Frame::kB || op.frame == Frame::kC;
    if (op.opnum >= 81) {
      EXPECT_FALSE(start_line);
      EXPECT_EQ(op.frame, op.locked() ? Frame::kE : Frame::kD);
    } else {
      EXPECT_EQ(start_line, early_without_start.count(op.opnum) == 0);
    }
    // Only three log names differ from the operation's name.
    const bool internal = op.name == "Tcsip_LoadKeyByBlob" || op.name == "Tcsip_LoadKey2ByBlob" ||
                          op.name == "Tcsip_GetPubKey";
    EXPECT_EQ(op.log_name, internal ? std::string(op.name) + "_Internal" : std::string(op.name));
    // An optional-authorisation start text needs a record to take the handle from.
    if (op.auth_start_text) {
      EXPECT_TRUE(std::any_of(op.params.begin(), op.params.end(),
                              [](const Param& p) { return p.kind == Kind::kAuth; }));
    }
  }
}

TEST(OperationTableTest, LookupsAndSizeParameters) {
  ASSERT_NE(FindOperation("Tcsip_Seal"), nullptr);
  EXPECT_EQ(FindOperation("Tcsip_Seal")->opnum, 45);
  EXPECT_EQ(FindOperation("Tcsip_Unseal"), nullptr);  // this interface spells it Tcsip_UnSeal
  EXPECT_EQ(FindOperation(125)->name, "Tcsi_Reserved125");
  EXPECT_EQ(FindOperation(126), nullptr);
  EXPECT_EQ(FindOperation(0xFFFFFFFF), nullptr);

  const Operation& seal = *FindOperation("Tcsip_Seal");
  // hContext keyHandle encAuth pcrInfoSize PcrInfo inDataSize inData pubAuth SealedDataSize
  // SealedData
  EXPECT_EQ(SizeParamIndex(seal, 4), 3u);
  EXPECT_EQ(SizeParamIndex(seal, 6), 5u);
  EXPECT_EQ(SizeParamIndex(seal, 9), 8u);
  EXPECT_EQ(SizeParamIndex(seal, 7), std::nullopt);
  EXPECT_EQ(seal.params[7].kind, Kind::kAuth);
  EXPECT_EQ(seal.params[7].form, Form::kRef);                               // required
  EXPECT_EQ(FindOperation("Tcsip_Unbind")->params[4].form, Form::kUnique);  // optional

  // Every TPM ordinal is named once, except SetTempDeactivated's, sent by both of its forms, and
  // the two that a sibling operation sends too (CertifyKey2 sends CertifyKey's, ReleaseCounterOwner
  // ReleaseCounter's).
  std::map<uint32_t, int> ordinals;
  for (const Operation& op : kOperations) {
    if (op.tpm_ordinal != 0) ++ordinals[op.tpm_ordinal];
  }
  for (const auto& [ordinal, count] : ordinals) {
    const bool shared = ordinal == 0x73 || ordinal == 0x32 || ordinal == 0xDF;
    EXPECT_EQ(count, shared ? 2 : 1) << std::hex << ordinal;
  }
}

TEST(OperationTableTest, DocumentedListMatchesTheTable) {
  // docs/operations.md: "| opnum | `name` | ordinal | state |", ordinal "TPM_ORD_X (0x...)" or "—".
  std::istringstream doc(ReadSourceFile("docs/operations.md"));
  std::string line;
  size_t rows = 0;
  while (std::getline(doc, line)) {
    if (line.size() < 2 || line[0] != '|' || !std::isdigit(static_cast<unsigned char>(line[2]))) {
      continue;
    }
    std::vector<std::string> cells;
    std::istringstream row(line.substr(1));
    std::string cell;
    while (std::getline(row, cell, '|')) {
      cell.erase(0, cell.find_first_not_of(' '));
      cell.erase(cell.find_last_not_of(' ') + 1);
      cells.push_back(cell);
    }
    ASSERT_GE(cells.size(), 4u) << line;
    const uint32_t opnum = std::stoul(cells[0]);
    ASSERT_EQ(opnum, rows) << line;
    const Operation& op = kOperations[opnum];
    EXPECT_EQ(cells[1], "`" + std::string(op.name) + "`");
    const size_t open = cells[2].find("(0x");
    if (op.tpm_ordinal == 0) {
      EXPECT_EQ(cells[2], "—") << line;
    } else {
      ASSERT_NE(open, std::string::npos) << line;
      EXPECT_EQ(std::stoul(cells[2].substr(open + 1), nullptr, 16), op.tpm_ordinal) << line;
    }
    ++rows;
  }
  EXPECT_EQ(rows, kOperationCount);
}

}  // namespace
}  // namespace kesttcs::rpc
