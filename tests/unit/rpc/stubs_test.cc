// The generic stubs: round trips over every opnum with generated arguments, byte-exact wire
// layouts for a few operations and for every fixed structure as its declaration lays it out, and
// rejection of every malformed request.
#include "rpc/stubs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "rpc/c_layout.h"

namespace kesttcs::rpc {
namespace {

using dcerpc::NdrReader;
using dcerpc::NdrWriter;

class Generator {
 public:
  explicit Generator(uint32_t seed) : rng_(seed) {}

  uint32_t Below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }
  bool Coin() { return Below(2) == 1; }
  uint64_t Scalar(Kind kind) {
    const uint64_t v = std::uniform_int_distribution<uint64_t>()(rng_);
    switch (kind) {
      case Kind::kUint64:
        return v;
      case Kind::kUint32:
        return v & 0xFFFFFFFF;
      case Kind::kUint16:
        return v & 0xFFFF;
      default:
        return v & 0xFF;
    }
  }
  template <typename T>
  void Randomize(T& object) {
    auto* bytes = reinterpret_cast<uint8_t*>(&object);
    for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<uint8_t>(Below(256));
  }
  Bytes RandomBytes(uint32_t n) {
    Bytes b(n);
    for (uint8_t& x : b) x = static_cast<uint8_t>(Below(256));
    return b;
  }
  std::optional<Bytes> OptionalData(uint32_t& length) {
    length = Below(6);
    if (Coin()) return RandomBytes(length);
    if (Coin()) length = 0;  // a null pointer usually comes with a zero length, not always
    return std::nullopt;
  }
  PcrEvent Event() {
    PcrEvent e;
    Randomize(e.versionInfo);
    e.ulPcrIndex = Below(24);
    e.eventType = static_cast<uint32_t>(Scalar(Kind::kUint32));
    e.rgbPcrValue = OptionalData(e.ulPcrValueLength);
    e.rgbEvent = OptionalData(e.ulEventLength);
    return e;
  }
  KeyInfo Key() {
    KeyInfo k;
    Randomize(k.versionInfo);
    Randomize(k.keyUUID);
    Randomize(k.parentKeyUUID);
    k.bAuthDataUsage = static_cast<uint8_t>(Below(256));
    k.fIsLoaded = static_cast<uint8_t>(Below(2));
    k.rgbVendorData = OptionalData(k.ulVendorDataLength);
    return k;
  }

  // A random value for parameter `index`; arrays set their size parameter. The client chooses
  // whether optional records are present (`choose_presence`); the server keeps that choice.
  void Fill(CallFrame& frame, size_t index, bool choose_presence) {
    const Param& p = frame.op().params[index];
    Arg& arg = frame.arg(index);
    if (p.form == Form::kArray || p.form == Form::kArrayPtr) {
      if (p.form == Form::kArrayPtr && Below(4) == 0) {
        arg = Arg{false, ValueFor(p)};
        return;
      }
      const uint32_t n = Below(p.kind == Kind::kByte ? 40 : 4);
      switch (p.kind) {
        case Kind::kUint32: {
          std::vector<uint32_t> words(n);
          for (uint32_t& w : words) w = static_cast<uint32_t>(Scalar(Kind::kUint32));
          frame.SetOutput(index, std::move(words));
          break;
        }
        case Kind::kPcrEvent: {
          std::vector<PcrEvent> events(n);
          for (PcrEvent& e : events) e = Event();
          frame.SetOutput(index, std::move(events));
          break;
        }
        case Kind::kKeyInfo: {
          std::vector<KeyInfo> keys(n);
          for (KeyInfo& k : keys) k = Key();
          frame.SetOutput(index, std::move(keys));
          break;
        }
        default:
          frame.SetOutput(index, RandomBytes(n));
          break;
      }
      return;
    }
    if (p.form == Form::kPtr || (p.form == Form::kUnique && choose_presence)) {
      arg.present = Coin();
    }
    // The client chooses whether it passes the pointer; the server whether an element comes back.
    if (p.form == Form::kOptPtr) {
      if (choose_presence) {
        arg.requested = Coin();
      } else {
        arg.present = arg.requested && Coin();
      }
    }
    arg.value = ValueFor(p);
    std::visit(
        [this, &p](auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, uint64_t>) {
            v = Scalar(p.kind);
          } else if constexpr (std::is_same_v<T, PcrEvent>) {
            v = Event();
          } else if constexpr (std::is_same_v<T, KeyInfo>) {
            v = Key();
          } else if constexpr (std::is_trivially_copyable_v<T>) {
            Randomize(v);
          }
        },
        arg.value);
  }

 private:
  std::mt19937 rng_;
};

Bytes Request(const CallFrame& frame) {
  Bytes out;
  NdrWriter writer(out);
  EXPECT_TRUE(MarshalRequest(frame, writer)) << frame.op().name;
  return out;
}

Bytes Response(const CallFrame& frame, TSS_RESULT result) {
  Bytes out;
  NdrWriter writer(out);
  EXPECT_TRUE(MarshalResponse(frame, result, writer)) << frame.op().name;
  return out;
}

TEST(StubsTest, EveryOperationRoundTripsAndRejectsEveryTruncation) {
  Generator gen(20240611);
  for (const Operation& op : kOperations) {
    SCOPED_TRACE(std::string(op.name));
    for (int round = 0; round < 8; ++round) {
      // Client: inputs, in parameter order so that arrays set their sizes last.
      CallFrame client(op);
      for (size_t i = 0; i < op.params.size(); ++i) {
        if (op.params[i].is_input()) gen.Fill(client, i, true);
      }
      const Bytes request = Request(client);

      // Server: the same inputs come out, and nothing is left over.
      CallFrame server(op);
      NdrReader reader(request);
      ASSERT_TRUE(UnmarshalRequest(reader, server));
      EXPECT_EQ(reader.remaining(), 0u);
      EXPECT_EQ(Request(server), request);
      for (size_t i = 0; i < op.params.size(); ++i) {
        if (!op.params[i].is_input()) continue;
        EXPECT_EQ(server.arg(i).present, client.arg(i).present) << op.params[i].name;
        EXPECT_EQ(server.arg(i).requested, client.arg(i).requested) << op.params[i].name;
        if (std::holds_alternative<uint64_t>(client.arg(i).value) && client.arg(i).present) {
          EXPECT_EQ(server.scalar(i), client.scalar(i)) << op.params[i].name;
        }
      }

      // Every shorter request fails cleanly.
      for (size_t cut = 0; cut < request.size(); ++cut) {
        CallFrame partial(op);
        NdrReader short_reader(std::span<const uint8_t>(request).first(cut));
        EXPECT_FALSE(UnmarshalRequest(short_reader, partial)) << "cut at " << cut;
      }

      // Server: outputs; client: the same outputs and result come back.
      for (size_t i = 0; i < op.params.size(); ++i) {
        if (op.params[i].is_output()) gen.Fill(server, i, false);
      }
      const TSS_RESULT result = static_cast<TSS_RESULT>(gen.Scalar(Kind::kUint32));
      const Bytes response = Response(server, result);
      NdrReader response_reader(response);
      TSS_RESULT got = 0;
      ASSERT_TRUE(UnmarshalResponse(response_reader, client, got));
      EXPECT_EQ(got, result);
      EXPECT_EQ(response_reader.remaining(), 0u);
      EXPECT_EQ(Response(client, result), response);
      for (size_t cut = 0; cut < response.size(); ++cut) {
        CallFrame again(op);
        for (size_t i = 0; i < op.params.size(); ++i) {
          again.arg(i).present = client.arg(i).present;
          again.arg(i).requested = client.arg(i).requested;
        }
        NdrReader short_reader(std::span<const uint8_t>(response).first(cut));
        EXPECT_FALSE(UnmarshalResponse(short_reader, again, got)) << "cut at " << cut;
      }
    }
  }
}

TEST(StubsTest, LoadKeyByBlobWireLayout) {
  const Operation& op = *FindOperation("Tcsip_LoadKeyByBlob");
  CallFrame frame(op);
  frame.set_scalar(0, 0x11223344);
  frame.set_scalar(1, 0x40000000);
  frame.SetOutput(3, Bytes{0xAA, 0xBB, 0xCC});  // also sets cWrappedKeyBlobSize
  TPM_AUTH& auth = *frame.auth(4);
  auth.AuthHandle = 0x01020304;
  std::memset(&auth.NonceOdd, 0x11, sizeof(auth.NonceOdd));
  std::memset(&auth.NonceEven, 0x22, sizeof(auth.NonceEven));
  auth.fContinueAuthSession = 1;
  std::memset(&auth.HMAC, 0x33, sizeof(auth.HMAC));

  Bytes expected = {0x44, 0x33, 0x22, 0x11, 0x00, 0x00, 0x00, 0x40,  // hContext, hUnwrappingKey
                    0x03, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // size, conformance
                    0xAA, 0xBB, 0xCC, 0x00,                          // blob, pad
                    0x00, 0x00, 0x02, 0x00,                          // pAuth referent id
                    0x04, 0x03, 0x02, 0x01};                         // AuthHandle
  expected.insert(expected.end(), 20, 0x11);
  expected.insert(expected.end(), 20, 0x22);
  expected.push_back(0x01);
  expected.insert(expected.end(), 20, 0x33);
  EXPECT_EQ(Request(frame), expected);

  // Response: pAuth, then the two handles 4-aligned after the 65-byte record, then the result.
  frame.set_scalar(5, 0x22330001);
  frame.set_scalar(6, 0x01000000);
  Bytes response_expected(expected.begin() + 20, expected.end());
  response_expected.insert(response_expected.end(), {0x00, 0x00, 0x00,  // pad
                                                     0x01, 0x00, 0x33, 0x22, 0x00, 0x00, 0x00, 0x01,
                                                     0xC1, 0x20, 0x28, 0xE0});
  EXPECT_EQ(Response(frame, 0xE02820C1), response_expected);

  // Without a session the record is a null referent and nothing else.
  frame.arg(4).present = false;
  const Bytes request = Request(frame);
  ASSERT_EQ(request.size(), 24u);
  CallFrame server(op);
  NdrReader reader(request);
  ASSERT_TRUE(UnmarshalRequest(reader, server));
  EXPECT_EQ(server.auth(4), nullptr);
  EXPECT_EQ(server.bytes(3), (Bytes{0xAA, 0xBB, 0xCC}));
}

TEST(StubsTest, GetPcrEventCarriesAnEventPointerTheClientMayLeaveOut) {
  const Operation& op = *FindOperation("Tcsi_GetPcrEvent");
  CallFrame client(op);
  client.set_scalar(0, 0x11223344);
  client.set_scalar(1, 7);
  client.set_scalar(2, 2);
  const Bytes withEvent = Request(client);
  EXPECT_EQ(withEvent,
            (Bytes{0x44, 0x33, 0x22, 0x11, 7, 0, 0, 0, 2, 0, 0, 0,  // handle, PCR, number
                   0x00, 0x00, 0x02, 0x00,                          // the caller's pointer
                   0x00, 0x00, 0x00, 0x00}));                       // no event of its own
  client.arg(3).requested = false;
  const Bytes countOnly = Request(client);
  Bytes nullPointer(withEvent.begin(), withEvent.begin() + 12);
  nullPointer.insert(nullPointer.end(), 4, 0x00);
  EXPECT_EQ(countOnly, nullPointer);

  // The server sees which form was asked; an answer to the count form carries no event.
  CallFrame server(op);
  NdrReader reader(countOnly);
  ASSERT_TRUE(UnmarshalRequest(reader, server));
  EXPECT_FALSE(server.arg(3).requested);
  server.set_scalar(2, 5);
  EXPECT_EQ(Response(server, 0), (Bytes{5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  // An event comes back behind the pointer the client passed, and only then.
  CallFrame eventServer(op);
  NdrReader eventReader(withEvent);
  ASSERT_TRUE(UnmarshalRequest(eventReader, eventServer));
  ASSERT_TRUE(eventServer.arg(3).requested);
  PcrEvent event;
  event.ulPcrIndex = 7;
  event.ulPcrValueLength = 20;
  event.rgbPcrValue = Bytes(20, 0x5A);
  eventServer.SetOutput(3, event);
  const Bytes response = Response(eventServer, 0);
  client.arg(3).requested = true;
  NdrReader responseReader(response);
  TSS_RESULT result = 1;
  ASSERT_TRUE(UnmarshalResponse(responseReader, client, result));
  EXPECT_EQ(result, 0u);
  ASSERT_TRUE(client.arg(3).present);
  EXPECT_EQ(std::get<PcrEvent>(client.arg(3).value).rgbPcrValue, Bytes(20, 0x5A));
  CallFrame notAsked(op);
  notAsked.arg(3).requested = false;
  NdrReader mismatched(response);
  EXPECT_FALSE(UnmarshalResponse(mismatched, notAsked, result));
}

// A declared type with its typedefs followed to the base type or structure they name.
const WireType& Resolved(std::string_view name) {
  const WireType* type = FindWireType(name);
  while (!type->alias_of.empty()) type = FindWireType(type->alias_of);
  return *type;
}

size_t RoundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }

// Size of a base type; alignment of any fixed type, the same in C and in NDR: a base type's size,
// a structure's widest member.
size_t BaseSize(const WireType& base) { return CSize(*base.kind); }
size_t AlignOf(std::string_view name) {
  const WireType& type = Resolved(name);
  if (!type.is_struct()) return BaseSize(type);
  size_t align = 1;
  for (const Field& f : type.fields) align = std::max(align, AlignOf(f.type));
  return align;
}

// Appends the NDR form of the C object `c` of the declared type `name` to `ndr`, member by member
// as the declaration lists them (each member aligned within the stub, padding zero), and returns
// the object's C size.
size_t AppendAsDeclared(std::string_view name, const uint8_t* c, Bytes& ndr) {
  const WireType& type = Resolved(name);
  if (!type.is_struct()) {
    ndr.resize(RoundUp(ndr.size(), BaseSize(type)));
    ndr.insert(ndr.end(), c, c + BaseSize(type));  // NDR little-endian, as this host
    return BaseSize(type);
  }
  ndr.resize(RoundUp(ndr.size(), AlignOf(name)));
  size_t offset = 0;
  for (const Field& f : type.fields) {
    for (uint32_t i = 0; i < std::max(f.count, 1u); ++i) {
      offset = RoundUp(offset, AlignOf(f.type));
      offset += AppendAsDeclared(f.type, c + offset, ndr);
    }
  }
  return RoundUp(offset, AlignOf(name));
}

TEST(StubsTest, FixedStructuresTravelAsDeclared) {
  // Every structure a parameter can be (those without embedded data, whose layout the tests above
  // pin) is sent member by member as rpc/interface_types.h declares it, and its C layout has the
  // size the declaration implies.
  Generator gen(3);
  int checked = 0;
  for (const TypeGroup& group : kInterfaceTypes) {
    for (const WireType& type : group.types) {
      const bool embedded_data = std::any_of(type.fields.begin(), type.fields.end(),
                                             [](const Field& f) { return !f.size_is.empty(); });
      if (!type.is_struct() || !type.kind || embedded_data) continue;
      SCOPED_TRACE(std::string(type.name));
      std::array<uint8_t, kMaxCSize> c;
      for (uint8_t& b : c) b = static_cast<uint8_t>(gen.Below(256));
      Bytes expected;
      EXPECT_EQ(AppendAsDeclared(type.name, c.data(), expected), CSize(*type.kind));

      const Param param[] = {{"value", type.name, *type.kind, Dir::kIn, Form::kValue, {}}};
      const Operation op{0, "Send", kTraced, kNoOrdinal, param};
      CallFrame frame(op);
      frame.arg(0).value = SingleFromC(*type.kind, c.data());
      EXPECT_EQ(Request(frame), expected);
      ++checked;
    }
  }
  EXPECT_EQ(checked, 9);  // three 20-byte structures and six others
}

TEST(StubsTest, PcrEventArrayDefersItsDataUntilAfterAllEvents) {
  const Operation& op = *FindOperation("Tcsi_GetPcrEventLog");
  CallFrame frame(op);
  PcrEvent first;
  first.versionInfo = {1, 2, 0, 0};
  first.ulPcrIndex = 7;
  first.eventType = 5;
  first.ulPcrValueLength = 2;
  first.rgbPcrValue = Bytes{0xDE, 0xAD};
  PcrEvent second;
  second.ulPcrIndex = 8;
  frame.SetOutput(2, std::vector<PcrEvent>{first, second});
  const Bytes expected = {
      0x02, 0x00, 0x00, 0x00,                          // pEventCount
      0x00, 0x00, 0x02, 0x00, 0x02, 0x00, 0x00, 0x00,  // array referent, conformance
      0x01, 0x02, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,  // first event
      0x02, 0x00, 0x00, 0x00, 0x04, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,  // value pointer
      0x00, 0x00, 0x00, 0x00,                                                  // no event data
      0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // second event
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
      0x00, 0x00, 0x00, 0x00,                                                  //
      0x02, 0x00, 0x00, 0x00, 0xDE, 0xAD, 0x00, 0x00,  // first event's value, pad
      0x00, 0x00, 0x00, 0x00};                         // result
  EXPECT_EQ(Response(frame, 0), expected);
}

TEST(StubsTest, InconsistentOrHostileDataIsRefused) {
  const Operation& seal = *FindOperation("Tcsip_Seal");
  CallFrame good(seal);
  good.SetOutput(4, Bytes{1, 2, 3, 4});
  good.SetOutput(6, Bytes{5});
  const Bytes request = Request(good);
  // hContext(4) keyHandle(4) encAuth(20) pcrInfoSize at 28, its conformance at 32.
  auto refused = [&seal](Bytes stub) {
    CallFrame frame(seal);
    NdrReader reader(stub);
    return !UnmarshalRequest(reader, frame);
  };
  Bytes mismatch = request;
  mismatch[32] = 3;  // conformance 3 against pcrInfoSize 4
  EXPECT_TRUE(refused(mismatch));
  Bytes huge = request;
  huge[28] = huge[32] = 0xFF;
  huge[29] = huge[33] = huge[30] = huge[34] = huge[31] = huge[35] = 0xFF;  // 4 GiB claimed
  EXPECT_TRUE(refused(huge));
  EXPECT_FALSE(refused(request));

  // The marshalling side refuses frames whose sizes disagree instead of sending them.
  CallFrame bad = good;
  bad.set_scalar(3, 9);
  Bytes out;
  NdrWriter writer(out);
  EXPECT_FALSE(MarshalRequest(bad, writer));
  CallFrame log(*FindOperation("Tcsi_LogPcrEvent"));
  PcrEvent event;
  event.ulEventLength = 3;
  event.rgbEvent = Bytes{1};
  log.arg(1).value = event;
  EXPECT_FALSE(MarshalRequest(log, writer));

  // An optional record that comes back where none was sent is a broken response.
  const Operation& unbind = *FindOperation("Tcsip_Unbind");
  CallFrame server(unbind);
  const Bytes response = Response(server, 0);  // privAuth present (the frame's default)
  CallFrame client(unbind);
  client.arg(4).present = false;
  NdrReader reader(response);
  TSS_RESULT result = 0;
  EXPECT_FALSE(UnmarshalResponse(reader, client, result));

  // Random bytes never get past the bounds checks into anything worse than a refusal.
  Generator gen(7);
  for (const Operation& op : kOperations) {
    for (int i = 0; i < 50; ++i) {
      const Bytes junk = gen.RandomBytes(gen.Below(200));
      CallFrame frame(op);
      NdrReader junk_reader(junk);
      (void)UnmarshalRequest(junk_reader, frame);
      CallFrame reply(op);
      NdrReader junk_reply(junk);
      (void)UnmarshalResponse(junk_reply, reply, result);
    }
  }
}

}  // namespace
}  // namespace kesttcs::rpc
