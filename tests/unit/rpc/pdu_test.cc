// Connection-oriented PDUs: byte-exact fixtures for bind / bind_ack (NDR, NDR64 and bind-time
// feature negotiation contexts), bind_nak, fault and fragmented responses; header checks; and the
// association engine answering a bind and reassembling a fragmented request.
#include "rpc/dcerpc/pdu.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "hex_bytes.h"
#include "rpc/dcerpc/association.h"

namespace kesttcs::dcerpc {
namespace {

const char kIface[] = "5a7c1f3e-2b4d-4e6f-8a9b-0c1d2e3f4a5b";
const char kIfaceBytes[] = "3e 1f 7c 5a 4d 2b 6f 4e 8a 9b 0c 1d 2e 3f 4a 5b 01 00 00 00 ";
const char kNdrBytes[] = "04 5d 88 8a eb 1c c9 11 9f e8 08 00 2b 10 48 60 02 00 00 00 ";
const char kNdr64Bytes[] = "33 05 71 71 ba be 37 49 83 19 b5 db ef 9c cc 36 01 00 00 00 ";
const char kFeatureBytes[] = "2c 1c b7 6c 12 98 40 45 03 00 00 00 00 00 00 00 01 00 00 00 ";
const char kZeroSyntax[] = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ";

SyntaxId Iface() { return {*Uuid::Parse(kIface), 1, 0}; }
SyntaxId Features() { return {*Uuid::Parse("6cb71c2c-9812-4540-0300-000000000000"), 1, 0}; }

std::vector<uint8_t> BindFixture() {
  return Hex(std::string("05 00 0b 03 10 00 00 00 a0 00 00 00 02 00 00 00 "
                         "d0 16 d0 16 00 00 00 00 03 00 00 00 "
                         "00 00 01 00 ") +
             kIfaceBytes + kNdrBytes + "01 00 01 00 " + kIfaceBytes + kNdr64Bytes + "02 00 01 00 " +
             kIfaceBytes + kFeatureBytes);
}

TEST(PduTest, UuidsAndSyntaxes) {
  EXPECT_EQ(NdrSyntax().uuid.ToString(), "8a885d04-1ceb-11c9-9fe8-08002b104860");
  EXPECT_EQ(Uuid::Parse("8A885D04-1CEB-11C9-9FE8-08002B104860"), NdrSyntax().uuid);
  for (const char* bad :
       {"", "8a885d04-1ceb-11c9-9fe8-08002b10486", "8a885d04x1ceb-11c9-9fe8-08002b104860",
        "8a885d04-1ceb-11c9-9fe8-08002b10486g"}) {
    EXPECT_FALSE(Uuid::Parse(bad)) << bad;
  }
  uint8_t features = 0;
  EXPECT_TRUE(IsFeatureNegotiation(Features(), features));
  EXPECT_EQ(features, 3);
  EXPECT_FALSE(IsFeatureNegotiation(NdrSyntax(), features));
}

TEST(PduTest, BindWithNdrNdr64AndFeatureNegotiation) {
  BindPdu bind{
      5840,
      5840,
      0,
      {{0, Iface(), {NdrSyntax()}}, {1, Iface(), {Ndr64Syntax()}}, {2, Iface(), {Features()}}}};
  std::vector<uint8_t> bytes = EncodeBind(PduType::kBind, 2, bind);
  EXPECT_EQ(bytes, BindFixture());

  auto header = ParseHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->type, PduType::kBind);
  EXPECT_EQ(header->frag_length, 0xa0);
  auto parsed = ParseBind(*header, bytes);
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->contexts.size(), 3u);
  EXPECT_EQ(parsed->contexts[1].abstract_syntax, Iface());
  EXPECT_EQ(parsed->contexts[1].transfer_syntaxes, std::vector<SyntaxId>{Ndr64Syntax()});

  // The association answers: NDR accepted, NDR64 refused, features acknowledged.
  InterfaceRegistry registry;
  registry[Iface()] = [](const CallInfo&, uint16_t, std::span<const uint8_t>,
                         std::vector<uint8_t>&) { return 0u; };
  AssociationGroups groups;
  RequestBudget budget(kMaxRequestStub);
  Association association(registry, {}, "135", groups, budget);
  association.Feed(bytes);
  std::vector<uint8_t> output;
  PendingCall call;
  EXPECT_EQ(association.Next(output, call), Association::Step::kNeedMore);
  EXPECT_EQ(output, Hex(std::string("05 00 0c 03 10 00 00 00 6c 00 00 00 02 00 00 00 "
                                    "d0 16 d0 16 01 00 01 00 04 00 31 33 35 00 00 00 "
                                    "03 00 00 00 "
                                    "00 00 00 00 ") +
                        kNdrBytes + "02 00 02 00 " + kZeroSyntax + "03 00 02 00 " + kZeroSyntax));
  header = ParseHeader(output);
  ASSERT_TRUE(header);
  auto ack = ParseBindAck(*header, output);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->secondary_address, "135");
  EXPECT_EQ(ack->assoc_group_id, 0x10001u);  // the first group this server issues
  ASSERT_EQ(ack->results.size(), 3u);
  EXPECT_EQ(ack->results[2].result, kResultNegotiateAck);
}

TEST(PduTest, BigEndianBindIsUnderstood) {
  std::vector<uint8_t> bytes =
      Hex(std::string("05 00 0b 03 00 00 00 00 00 48 00 00 00 00 00 09 "
                      "10 b8 10 b8 00 00 00 00 01 00 00 00 "
                      "00 07 01 00 "
                      "5a 7c 1f 3e 2b 4d 4e 6f 8a 9b 0c 1d 2e 3f 4a 5b 00 00 00 01 "
                      "8a 88 5d 04 1c eb 11 c9 9f e8 08 00 2b 10 48 60 00 00 00 02"));
  auto header = ParseHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->byte_order(), ByteOrder::kBig);
  EXPECT_EQ(header->frag_length, 0x48);
  EXPECT_EQ(header->call_id, 9u);
  auto bind = ParseBind(*header, bytes);
  ASSERT_TRUE(bind);
  EXPECT_EQ(bind->max_xmit_frag, 4280);
  ASSERT_EQ(bind->contexts.size(), 1u);
  EXPECT_EQ(bind->contexts[0].id, 7);
  EXPECT_EQ(bind->contexts[0].abstract_syntax, Iface());
  EXPECT_EQ(bind->contexts[0].transfer_syntaxes[0], NdrSyntax());
}

TEST(PduTest, NakFaultAndHeaderOnlyPdus) {
  EXPECT_EQ(EncodeBindNak(4, kNakReasonNotSpecified),
            Hex("05 00 0d 03 10 00 00 00 15 00 00 00 04 00 00 00 00 00 01 05 00"));
  EXPECT_EQ(EncodeFault(5, 1, kNcaOpRangeError, true),
            Hex("05 00 03 23 10 00 00 00 20 00 00 00 05 00 00 00 "
                "00 00 00 00 01 00 00 00 02 00 01 1c 00 00 00 00"));
  EXPECT_EQ(EncodeHeaderOnly(PduType::kOrphaned, 6, kPfcFirstFrag | kPfcLastFrag),
            Hex("05 00 13 03 10 00 00 00 10 00 00 00 06 00 00 00"));
  std::vector<uint8_t> fault = EncodeFault(5, 1, kRpcBadStubData, false);
  auto header = ParseHeader(fault);
  ASSERT_TRUE(header);
  auto parsed = ParseResponse(*header, fault);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->status, kRpcBadStubData);
}

TEST(PduTest, HeaderChecks) {
  std::vector<uint8_t> good = EncodeHeaderOnly(PduType::kShutdown, 1, 3);
  EXPECT_TRUE(ParseHeader(good));
  EXPECT_FALSE(ParseHeader(std::span(good).first(15)));
  auto with = [&](size_t at, uint8_t value) {
    std::vector<uint8_t> bytes = good;
    bytes[at] = value;
    return ParseHeader(bytes);
  };
  EXPECT_FALSE(with(0, 4));      // version 4
  EXPECT_FALSE(with(1, 1));      // version 5.1
  EXPECT_FALSE(with(4, 0x20));   // unknown integer representation
  EXPECT_FALSE(with(8, 15));     // frag_length below the header
  EXPECT_FALSE(with(10, 0x10));  // auth_length beyond frag_length
}

TEST(PduTest, ResponsesAreFragmentedAndRequestsReassembled) {
  std::vector<uint8_t> stub(10000);
  for (size_t i = 0; i < stub.size(); ++i) stub[i] = static_cast<uint8_t>(i);
  std::vector<uint8_t> out;
  EncodeResponseFragments(3, 0, stub, 4280, out);
  // 4280 - 24 = 4256 stub bytes per fragment (a multiple of 8): 4256 + 4256 + 1488.
  std::vector<uint8_t> reassembled;
  std::vector<std::pair<uint8_t, uint32_t>> seen;  // flags, alloc_hint
  for (size_t at = 0; at < out.size();) {
    auto header = ParseHeader(std::span(out).subspan(at));
    ASSERT_TRUE(header);
    auto fragment = std::span(out).subspan(at, header->frag_length);
    auto response = ParseResponse(*header, fragment);
    ASSERT_TRUE(response);
    seen.emplace_back(header->flags, response->alloc_hint);
    reassembled.insert(reassembled.end(), response->stub.begin(), response->stub.end());
    at += header->frag_length;
  }
  EXPECT_EQ(seen, (std::vector<std::pair<uint8_t, uint32_t>>{
                      {kPfcFirstFrag, 10000}, {0, 5744}, {kPfcLastFrag, 1488}}));
  EXPECT_EQ(reassembled, stub);

  // The same stub as a request with an object UUID goes through the association in pieces.
  InterfaceRegistry registry;
  registry[Iface()] = nullptr;
  AssociationGroups groups;
  RequestBudget budget(kMaxRequestStub);
  Association association(registry, {}, "", groups, budget);
  association.Feed(
      EncodeBind(PduType::kBind, 1, BindPdu{4280, 4280, 0, {{0, Iface(), {NdrSyntax()}}}}));
  PendingCall call;
  std::vector<uint8_t> output;
  ASSERT_EQ(association.Next(output, call), Association::Step::kNeedMore);
  std::vector<uint8_t> request;
  EncodeRequestFragments(2, 0, 17, NdrSyntax().uuid, stub, 4280, request);
  for (size_t at = 0; at < request.size(); at += 1000) {
    association.Feed(std::span(request).subspan(at, std::min<size_t>(1000, request.size() - at)));
    Association::Step step = association.Next(output, call);
    EXPECT_EQ(step, at + 1000 >= request.size() ? Association::Step::kCall
                                                : Association::Step::kNeedMore);
  }
  EXPECT_EQ(call.stub, stub);
  EXPECT_EQ(call.opnum, 17);
  EXPECT_EQ(call.info.call_id, 2u);
  EXPECT_EQ(call.info.object, NdrSyntax().uuid);

  // A fragment above the negotiated receive size ends the association.
  std::vector<uint8_t> big;
  EncodeRequestFragments(3, 0, 1, std::nullopt, stub, 5840, big);
  association.Feed(big);
  EXPECT_EQ(association.Next(output, call), Association::Step::kClose);
  EXPECT_EQ(association.Next(output, call), Association::Step::kClose);
}

// The group id a bind_ack carries.
uint32_t BoundGroup(Association& association, uint32_t requested) {
  association.Feed(
      EncodeBind(PduType::kBind, 1, BindPdu{4280, 4280, requested, {{0, Iface(), {NdrSyntax()}}}}));
  std::vector<uint8_t> output;
  PendingCall call;
  EXPECT_EQ(association.Next(output, call), Association::Step::kNeedMore);
  std::optional<PduHeader> header = ParseHeader(output);
  std::optional<BindAckPdu> ack = header ? ParseBindAck(*header, output) : std::nullopt;
  return ack ? ack->assoc_group_id : 0;
}

// Group ids come from the server: a bind joins a live group of its own user; an id the server did
// not issue, one of another user, or one whose connections are all gone gets a fresh group.
TEST(PduTest, AssociationGroupsAreIssuedAndJoinedByTheServer) {
  InterfaceRegistry registry;
  registry[Iface()] = nullptr;
  AssociationGroups groups;
  RequestBudget budget(kMaxRequestStub);
  PeerIdentity alice;
  alice.uid = 1000;
  PeerIdentity bob;
  bob.uid = 1001;
  auto first = std::make_unique<Association>(registry, alice, "", groups, budget);
  const uint32_t group = BoundGroup(*first, 0);
  EXPECT_NE(group, 0u);
  EXPECT_EQ(first->peer().assoc_group_id, group);
  Association second(registry, alice, "", groups, budget);
  EXPECT_EQ(BoundGroup(second, group), group);
  Association stranger(registry, bob, "", groups, budget);
  EXPECT_NE(BoundGroup(stranger, group), group);
  Association guess(registry, alice, "", groups, budget);
  const uint32_t guessed = BoundGroup(guess, 0x7fff1234);
  EXPECT_NE(guessed, 0x7fff1234u);
  EXPECT_NE(guessed, group);
  EXPECT_EQ(groups.live_groups(), 3u);
  first.reset();
  EXPECT_EQ(groups.live_groups(), 3u);  // the second connection keeps the group
}

// Request bytes are charged to the server's budget until the call is dropped; a fragment the
// budget cannot take gets the out-of-memory fault at once and ends the association.
TEST(PduTest, RequestsBeyondTheBudgetAreRefused) {
  InterfaceRegistry registry;
  registry[Iface()] = nullptr;
  AssociationGroups groups;
  RequestBudget budget(300 * 1024);
  Association holder(registry, {}, "", groups, budget);
  Association late(registry, {}, "", groups, budget);
  std::vector<uint8_t> output;
  PendingCall call;
  for (Association* a : {&holder, &late}) {
    a->Feed(EncodeBind(PduType::kBind, 1, BindPdu{4280, 4280, 0, {{0, Iface(), {NdrSyntax()}}}}));
    ASSERT_EQ(a->Next(output, call), Association::Step::kNeedMore);
  }
  // 150 000 bytes of a request that never ends: the holder's buffer grows in 64 KiB steps.
  std::vector<uint8_t> request;
  EncodeRequestFragments(2, 0, 1, std::nullopt, std::vector<uint8_t>(300000, 7), 4280, request);
  holder.Feed(std::span(request).first(150000));
  EXPECT_EQ(holder.Next(output, call), Association::Step::kNeedMore);
  EXPECT_GE(budget.used(), 150000u);
  EXPECT_LE(budget.used(), 300u * 1024);
  output.clear();
  late.Feed(std::span(request).first(100000));
  EXPECT_EQ(late.Next(output, call), Association::Step::kClose);
  std::optional<PduHeader> header = ParseHeader(output);
  ASSERT_TRUE(header && header->type == PduType::kFault);
  EXPECT_EQ(ParseResponse(*header, output)->status, kNcaFaultRemoteNoMemory);
  const size_t held = budget.used();
  holder.Feed(std::span(request).subspan(150000));
  EXPECT_EQ(holder.Next(output, call), Association::Step::kClose);
  EXPECT_LT(budget.used(), held);  // the refused request gave its bytes back
}

}  // namespace
}  // namespace kesttcs::dcerpc
