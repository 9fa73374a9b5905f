// What the operation table must say and the generator cannot check: lookups by name and opnum,
// size parameters, which TPM ordinals operations share, the names ordinals carry into the list of
// operations, and the rules the handler frames follow. That the generated files are current and
// that the interface definition compiles are ctests (generated_interface_files_are_current,
// idl_compiles).
#include "rpc/operations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

namespace kesttcs::rpc {
namespace {

TEST(OperationTableTest, LookupsAndSizeParameters) {
  static_assert(OpnumOf("Tcsip_Seal") == 45);
  ASSERT_NE(FindOperation("Tcsip_Seal"), nullptr);
  EXPECT_EQ(FindOperation("Tcsip_Seal")->opnum, OpnumOf("Tcsip_Seal"));
  EXPECT_EQ(FindOperation("Tcsip_Unseal"), nullptr);  // this interface spells it Tcsip_UnSeal
  EXPECT_EQ(FindOperation(kOperationCount - 1)->name, "Tcsi_Reserved125");
  EXPECT_EQ(FindOperation(kOperationCount), nullptr);
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
}

TEST(OperationTableTest, OrdinalsAreSentOnceExceptByTheSiblingPairs) {
  // Every TPM ordinal is sent by one operation, except SetTempDeactivated's, sent by both of its
  // forms, and the two that a sibling operation sends too: CertifyKey2 sends CertifyKey's and
  // ReleaseCounterOwner ReleaseCounter's.
  std::map<uint32_t, int> senders;
  for (const Operation& op : kOperations) {
    if (op.tpm_ordinal.value != 0) ++senders[op.tpm_ordinal.value];
  }
  for (const auto& [ordinal, count] : senders) {
    const bool shared = ordinal == TPM_ORD_SetTempDeactivated || ordinal == TPM_ORD_CertifyKey ||
                        ordinal == TPM_ORD_ReleaseCounter;
    EXPECT_EQ(count, shared ? 2 : 1) << std::hex << ordinal;
  }
  EXPECT_EQ(kOperations[OpnumOf("Tcsip_CertifyKey2")].tpm_ordinal.value, 0x32u);
  EXPECT_EQ(kOperations[OpnumOf("Tcsip_ReleaseCounterOwner")].tpm_ordinal.value, 0xDFu);

  // Each ordinal carries the name of its constant, for the list of operations.
  EXPECT_EQ(kOperations[OpnumOf("Tcsip_CertifyKey2")].tpm_ordinal.name, "TPM_ORD_CertifyKey");
  EXPECT_EQ(kOperations[OpnumOf("Tcsip_PhysicalPresence")].tpm_ordinal.name,
            "TSC_ORD_PhysicalPresence");
  EXPECT_EQ(kOperations[OpnumOf("Tcsip_VendorCommand2")].tpm_ordinal.name,
            "kVendorCommand2Ordinal");
  for (const Operation& op : kOperations) {
    const std::string_view name = op.tpm_ordinal.name;
    EXPECT_EQ(name.empty(), op.tpm_ordinal.value == 0) << op.name;
    EXPECT_TRUE(name.empty() || name.starts_with("TPM_ORD_") || name.starts_with("TSC_ORD_") ||
                name.starts_with("kVendorCommand"))
        << op.name << " " << name;
  }
}

TEST(OperationTableTest, HandlerFramesFollowTheHandlerRules) {
  const Frame kNamed[] = {kTraced,       kTracedLocked,       kTracedInsideLock,
                          kResultTraced, kResultTracedLocked, kSilentLocked,
                          kNoHandler};
  for (const Operation& op : kOperations) {
    SCOPED_TRACE(std::string(op.name));
    EXPECT_NE(std::find(std::begin(kNamed), std::end(kNamed), op.frame), std::end(kNamed));
    // The vendor commands run silently under the API lock; the reserved opnums have no handler.
    EXPECT_EQ(op.frame == kSilentLocked, op.name.starts_with("Tcsip_VendorCommand"));
    EXPECT_EQ(op.frame == kNoHandler, op.name.starts_with("Tcsi_Reserved"));
    // Only Tcsip_Unbind holds the lock across its trace lines.
    EXPECT_EQ(op.frame.lock == ApiLock::kAcrossTraceLines, op.name == "Tcsip_Unbind");
    // From Tcsip_SetRedirection on, handlers trace no start line.
    EXPECT_FALSE(op.opnum >= OpnumOf("Tcsip_SetRedirection") && op.frame.start_line);
    // A log name differs from the operation's name only by naming its internal function.
    EXPECT_TRUE(op.log_name() == op.name || op.log_name() == std::string(op.name) + "_Internal");
  }
}

}  // namespace
}  // namespace kesttcs::rpc
