#include "rpc/api_frame.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"

namespace kesttcs {
namespace {

using rpc::CallFrame;
using rpc::Form;
using rpc::Kind;
using rpc::Operation;

// A trace text and the values it prints, by parameter name; "result" is the operation's result and
// "@auth" the session handle of its authorisation record.
struct Text {
  std::string_view format;
  std::array<std::string_view, 5> args{};
};

// Texts that differ from the standard ones. An empty format keeps the standard text.
struct OwnTexts {
  std::string_view op;
  Text start{};       // the start line (without a session, for operations with the session form)
  Text start_auth{};  // the start line when the authorisation record is present
  Text result{};
  Text extra{};  // a line after the result line
};

constexpr OwnTexts kOwnTexts[] = {
    {"Tcsi_OpenContext",
     {"RecvApiCall:Tcsi_OpenContext start."},
     {},
     {},
     {"TCSMakehContext=0x%08x", {"hContext"}}},
    {"Tcsi_CloseContext",
     {},
     {},
     {"RecvApiCall:Tcsi_CloseContext:hContext=0x%.8X,Result=0x%.8X", {"hContext", "result"}},
     {"TCSReleaseContext=0x%08x,result =0x%.8x", {"hContext", "result"}}},
    {"Tcsip_OIAP",
     {},
     {},
     {"RecvApiCall:Tcsip_OIAP:hContext=0x%.8X,authHandle=0x%.8x,result=0x%.8X",
      {"hContext", "authHandle", "result"}},
     {}},
    {"Tcsip_LoadKeyByBlob",
     {"RecvApiCall:Tcsip_LoadKeyByBlob_Internal start:hContext=0x%.8X,hUnwrappingkey=0x%.8X",
      {"hContext", "hUnwrappingKey"}},
     {"RecvApiCall:Tcsip_LoadKeyByBlob_Internal start:hContext=0x%.8X,authHandle=0x%.8X,"
      "hUnwrappingkey=0x%.8X",
      {"hContext", "@auth", "hUnwrappingKey"}},
     {"RecvApiCall:Tcsip_LoadKeyByBlob_Internal:result=0x%.8X,hContext=0x%.8X,"
      "hUnwrappingkey=0x%.8X,hKey=0x%.8X,phKeyHMAC=0x%.8X",
      {"result", "hContext", "hUnwrappingKey", "phKeyTCSI", "phKeyHMAC"}},
     {}},
    {"Tcsip_LoadKey2ByBlob",
     {"RecvApiCall:Tcsip_LoadKey2ByBlob_Internal start:hContext=0x%.8X,hWrappingKey=0x%.8X",
      {"hContext", "hUnwrappingKey"}},
     {"RecvApiCall:Tcsip_LoadKey2ByBlob_Internal start:hContext=0x%.8X,authHandle=0x%.8X,"
      "hWrappingKey=0x%.8X",
      {"hContext", "@auth", "hUnwrappingKey"}},
     {"RecvApiCall:Tcsip_LoadKey2ByBlob_Internal:result=0x%.8X,hContext=0x%.8X,"
      "hWrappingKey=0x%.8X,hKey=0x%.8X",
      {"result", "hContext", "hUnwrappingKey", "phKeyTCSI"}},
     {}},
    {"Tcsip_GetPubKey",
     {"RecvApiCall:Tcsip_GetPubKey_Internal start:hContext=0x%.8X,hKey=0x%.8X",
      {"hContext", "hKey"}},
     {"RecvApiCall:Tcsip_GetPubKey_Internal start:hContext=0x%.8X,authHandle=0x%.8X,hKey=0x%.8X",
      {"hContext", "@auth", "hKey"}},
     {},
     {}},
    {"Tcsip_CreateMigrationBlob",
     {},
     {"RecvApiCall:Tcsip_CreateMigrationBlob start:hContext=0x%.8X,pauthHandle=0x%.8X",
      {"hContext", "@auth"}},
     {},
     {}},
    {"Tcsip_CertifyKey2", {"RecvApiCall:Tcsip_CertifyKey2 start :hContext=0x%.8X", {"hContext"}}},
    {"Tcsip_SelfTestFull", {"RecvApiCall:Tcsip_SelfTestFull start :hContext=0x%.8X", {"hContext"}}},
    {"Tcsip_DisableForceClear",
     {"RecvApiCall:Tcsip_DisableForceClear start :hContext=0x%.8X", {"hContext"}}},
    {"Tcsi_GetPcrEventLog",
     {"RecvApiCall:Tcsi_GetPcrEventLog start: hContext=0x%.8X", {"hContext"}}},
    {"Tcsip_ReadPubek", {"RecvApiCall:Tcsip_ReadPubek start: hContext=0x%.8X", {"hContext"}}},
};

constexpr const char kUnlockText[] = "RecvApiCall:UnlockTreateFunc";

// Where a printed value comes from.
struct ValueSource {
  enum class What : uint8_t { kParam, kAuthHandle, kResult } what = What::kParam;
  size_t index = 0;
};

// A trace line ready to print: its format and its values.
struct Line {
  std::string format;
  std::vector<ValueSource> values;
  bool empty() const { return format.empty(); }
};

struct OperationTexts {
  Line start;
  Line start_auth;  // empty unless the operation has the session form
  Line result;
  Line extra;
  std::optional<size_t> auth_index;  // the authorisation record the session form looks at
  bool valid = true;                 // every value names a parameter of the operation
};

std::optional<ValueSource> Resolve(const Operation& op, std::optional<size_t> auth_index,
                                   std::string_view name) {
  if (name == "result") return ValueSource{ValueSource::What::kResult, 0};
  if (name == "@auth") {
    if (!auth_index) return std::nullopt;
    return ValueSource{ValueSource::What::kAuthHandle, *auth_index};
  }
  for (size_t i = 0; i < op.params.size(); ++i) {
    const rpc::Param& p = op.params[i];
    if (p.name == name && p.kind == Kind::kUint32 &&
        (p.form == Form::kValue || p.form == Form::kRef)) {
      return ValueSource{ValueSource::What::kParam, i};
    }
  }
  return std::nullopt;
}

Line MakeLine(const Operation& op, OperationTexts& texts, const Text& text) {
  Line line{std::string(text.format), {}};
  for (std::string_view name : text.args) {
    if (name.empty()) break;
    const std::optional<ValueSource> source = Resolve(op, texts.auth_index, name);
    if (!source) {
      texts.valid = false;
      continue;
    }
    line.values.push_back(*source);
  }
  return line;
}

OperationTexts BuildTexts(const Operation& op) {
  OperationTexts t;
  for (size_t i = 0; i < op.params.size(); ++i) {
    if (op.params[i].kind == Kind::kAuth) {
      t.auth_index = i;
      break;
    }
  }
  const std::string name(op.log_name());
  const Text standard_start{"", {"hContext"}};
  const Text standard_auth{"", {"hContext", "@auth"}};
  const Text standard_result{"", {"hContext", "result"}};
  const std::string start_format = "RecvApiCall:" + name + " start:hContext=0x%.8X";
  const std::string auth_format = start_format + ",authHandle=0x%.8X";
  const std::string result_format = "RecvApiCall:" + name + ":hContext=0x%.8X,result=0x%.8X";

  const OwnTexts* own = nullptr;
  for (const OwnTexts& o : kOwnTexts) {
    if (o.op == op.name) own = &o;
  }
  auto pick = [&](const Text* own_text, const Text& standard, const std::string& format) {
    if (own_text != nullptr && !own_text->format.empty()) return MakeLine(op, t, *own_text);
    Line line = MakeLine(op, t, standard);
    line.format = format;
    return line;
  };
  t.start = pick(own ? &own->start : nullptr, standard_start, start_format);
  if (op.trace.session_form)
    t.start_auth = pick(own ? &own->start_auth : nullptr, standard_auth, auth_format);
  t.result = pick(own ? &own->result : nullptr, standard_result, result_format);
  if (own != nullptr && !own->extra.format.empty()) t.extra = MakeLine(op, t, own->extra);
  return t;
}

const std::array<OperationTexts, rpc::kOperationCount>& AllTexts() {
  static const auto* texts = [] {
    auto* all = new std::array<OperationTexts, rpc::kOperationCount>;
    for (const Operation& op : rpc::kOperations) (*all)[op.opnum] = BuildTexts(op);
    return all;
  }();
  return *texts;
}

UINT32 ValueOf(const ValueSource& source, const CallFrame& frame, TSS_RESULT result) {
  switch (source.what) {
    case ValueSource::What::kResult:
      return result;
    case ValueSource::What::kAuthHandle:
      return std::get<TPM_AUTH>(frame.arg(source.index).value).AuthHandle;
    case ValueSource::What::kParam:
      return frame.u32(source.index);
  }
  return 0;
}

void Trace(const Line& line, const CallFrame& frame, TSS_RESULT result) {
  if (line.empty() || !NeedLog()) return;
  std::array<UINT32, 5> v{};
  for (size_t i = 0; i < line.values.size() && i < v.size(); ++i) {
    v[i] = ValueOf(line.values[i], frame, result);
  }
  // Every text prints at most five 32-bit values; unused arguments are ignored by the formatter.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  TcsTracef(line.format.c_str(), v[0], v[1], v[2], v[3], v[4]);
#pragma GCC diagnostic pop
}

void TraceStart(const Operation& op, const OperationTexts& t, const CallFrame& frame) {
  if (!NeedLog()) return;
  const bool with_session =
      op.trace.session_form && t.auth_index &&
      (op.params[*t.auth_index].form != Form::kUnique || frame.arg(*t.auth_index).present);
  Trace(with_session ? t.start_auth : t.start, frame, 0);
}

void TraceResult(const OperationTexts& t, const CallFrame& frame, TSS_RESULT result) {
  Trace(t.result, frame, result);
  Trace(t.extra, frame, result);
}

template <typename Call>
TSS_RESULT CallUnderApiLock(const Call& call) {
  MutexLock lock(ApiSerialisationLock());
  return call();
}

// The frame's trace lines around the internal call, and the API lock around the call alone when
// the frame takes it there.
TSS_RESULT TracedCall(const Operation& op, const OperationTexts& t, const CallFrame& frame,
                      const std::function<TSS_RESULT()>& internal) {
  if (op.frame.start_line) TraceStart(op, t, frame);
  const TSS_RESULT result =
      op.frame.lock == rpc::ApiLock::kAroundCall ? CallUnderApiLock(internal) : internal();
  if (op.frame.result_line) TraceResult(t, frame, result);
  return result;
}

}  // namespace

Mutex& ApiSerialisationLock() {
  static Mutex* lock = new Mutex;
  return *lock;
}

TSS_RESULT RunApiFrame(const Operation& op, const CallFrame& frame,
                       const std::function<TSS_RESULT()>& internal) {
  const rpc::Frame& f = op.frame;
  if (!f.has_handler) return TCS_E_NOTIMPL;
  const OperationTexts& t = AllTexts()[op.opnum];
  if (f.lock != rpc::ApiLock::kAcrossTraceLines) return TracedCall(op, t, frame, internal);
  const TSS_RESULT result = CallUnderApiLock([&] { return TracedCall(op, t, frame, internal); });
  if (NeedLog()) TcsTrace(kUnlockText, nullptr);
  return result;
}

std::string_view FirstBadTraceText() {
  for (const Operation& op : rpc::kOperations) {
    if (!AllTexts()[op.opnum].valid) return op.name;
  }
  for (const OwnTexts& own : kOwnTexts) {
    if (rpc::FindOperation(own.op) == nullptr) return own.op;
  }
  return {};
}

}  // namespace kesttcs
