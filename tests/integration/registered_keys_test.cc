// Registered keys through the real kesttcsd on the embedded TPM: the operations over RPC with
// their results, kesttcs-cli's keys commands, and what a restart finds, with and without a TPM
// owner.
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "kesttcsd_process.h"
#include "storage/hex_fixture.h"
#include "storage/test_keys.h"

namespace kesttcs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Bytes = std::vector<BYTE>;

constexpr TSS_UUID kSrk = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};

struct Listed {
  TSS_UUID uuid;
  TSS_UUID parent;
  bool operator==(const Listed&) const = default;
};

class RegisteredKeysServiceTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }

  // Tcsi_EnumRegisteredKeys from `uuid` (null: every key).
  std::vector<Listed> Enumerate(const TSS_UUID* uuid = nullptr) {
    UINT32 count = 0;
    TSS_KM_KEYINFO* infos = nullptr;
    EXPECT_EQ(Tcsi_EnumRegisteredKeys(hContext_, const_cast<TSS_UUID*>(uuid), &count, &infos),
              TSS_SUCCESS);
    std::vector<Listed> listed;
    for (UINT32 i = 0; i < count; ++i) {
      listed.push_back({infos[i].keyUUID, infos[i].parentKeyUUID});
      EXPECT_EQ(infos[i].ulVendorDataLength, 0u);
      EXPECT_EQ(infos[i].rgbVendorData, nullptr);
    }
    Tcs_FreeBuffer(infos);
    return listed;
  }

  TSS_RESULT Register(const TSS_UUID& key, const TSS_UUID& parent, Bytes blob) {
    return Tcsi_RegisterKey(hContext_, parent, key, UINT32(blob.size()), blob.data(), 0, nullptr);
  }

  void OpenContext() { ASSERT_EQ(Tcsi_OpenContext(&hContext_), TSS_SUCCESS); }

  // kesttcs-cli with `args`: its exit status and what it printed.
  std::pair<int, std::string> Cli(const std::vector<std::string>& args,
                                  const std::vector<std::string>& env = {}) {
    std::vector<std::string> argv = {kKesttcsCli, "--endpoint", (Home() / "KestTCS").string()};
    argv.insert(argv.end(), args.begin(), args.end());
    const fs::path log = fs::path(dir_.path()) / "cli.txt";
    fs::remove(log);
    const int status = WaitForExit(Spawn(argv, env, log));
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    return {status, text.str()};
  }

  TempDir dir_;
  TCS_CONTEXT_HANDLE hContext_ = 0;
};

TEST_F(RegisteredKeysServiceTest, KeysRegisteredThroughTheServiceSurviveARestart) {
  ASSERT_FALSE(OwnedTpmState().empty()) << "swtpm_setup could not take ownership";
  KesttcsdProcess daemon(Home(), /*owned=*/true);
  ASSERT_TRUE(daemon.Start());
  OpenContext();
  // An owned TPM: the SRK placeholder record was written at start-up.
  EXPECT_THAT(Enumerate(), ElementsAre(Listed{kSrk, {}}));

  const TSS_UUID a = MakeUuid(1), b = MakeUuid(2), c = MakeUuid(3);
  const Bytes blobC = KeyBlob({.modulusSize = 16, .fill = 0x30});
  ASSERT_EQ(Register(a, kSrk, KeyBlob({.authDataUsage = 1, .keyUsage = 0x0011})), TSS_SUCCESS);
  ASSERT_EQ(Register(b, a, KeyBlob({.fill = 0x20})), TSS_SUCCESS);
  ASSERT_EQ(Register(c, kSrk, blobC), TSS_SUCCESS);
  EXPECT_EQ(Register(MakeUuid(4), MakeUuid(9), blobC), TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(Register(b, kSrk, blobC), TCS_E_KEY_ALREADY_REGISTERED);
  EXPECT_EQ(Register(kSrk, kSrk, blobC), TCS_E_KEY_ALREADY_REGISTERED);
  EXPECT_THAT(Enumerate(),
              ElementsAre(Listed{c, kSrk}, Listed{b, a}, Listed{a, kSrk}, Listed{kSrk, {}}));
  EXPECT_THAT(Enumerate(&b), ElementsAre(Listed{b, a}, Listed{a, kSrk}, Listed{kSrk, {}}));
  const TSS_UUID unknown = MakeUuid(9);
  UINT32 count = 7;
  TSS_KM_KEYINFO* infos = nullptr;
  EXPECT_EQ(Tcsi_EnumRegisteredKeys(hContext_, const_cast<TSS_UUID*>(&unknown), &count, &infos),
            TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(count, 0u);

  TSS_KM_KEYINFO* info = nullptr;
  ASSERT_EQ(Tcsi_GetRegisteredKey(hContext_, a, &info), TSS_SUCCESS);
  EXPECT_EQ(info->parentKeyUUID, kSrk);
  EXPECT_EQ(info->bAuthDataUsage, 1);
  EXPECT_EQ(info->fIsLoaded, 0);
  Tcs_FreeBuffer(info);
  UINT32 size = 0;
  BYTE* blob = nullptr;
  Bytes modulus(blobC.begin() + 43, blobC.begin() + 59);
  ASSERT_EQ(Tcsip_GetRegisteredKeyByPublicInfo(hContext_, 1, UINT32(modulus.size()), modulus.data(),
                                               &size, &blob),
            TSS_SUCCESS);
  EXPECT_EQ(Bytes(blob, blob + size), blobC);
  Tcs_FreeBuffer(blob);

  // kesttcs-cli: the tree, a registration, an unregistration, and the file checked beside it.
  std::pair<int, std::string> list = Cli({"keys", "list"});
  EXPECT_EQ(list.first, 0) << list.second;
  EXPECT_THAT(list.second, HasSubstr("00000000-0000-0000-0000-000000000001  storage  auth always"));
  EXPECT_THAT(list.second, HasSubstr("\n    10000002-2002-3002-0200-66778899"));
  const fs::path blobFile = fs::path(dir_.path()) / "key.blob";
  const Bytes blobD = KeyBlob({.fill = 0x40});
  std::ofstream(blobFile, std::ios::binary)
      .write(reinterpret_cast<const char*>(blobD.data()), std::streamsize(blobD.size()));
  std::pair<int, std::string> reg =
      Cli({"keys", "register", "--uuid", "10000004-2004-3004-0400-6677889904aa", "--parent", "srk",
           "--blob", blobFile.string()});
  EXPECT_EQ(reg.first, 0) << reg.second;
  std::pair<int, std::string> unreg =
      Cli({"--json", "keys", "unregister", "10000003-2003-3003-0300-6677889903aa"});
  EXPECT_EQ(unreg.first, 0) << unreg.second;
  EXPECT_THAT(unreg.second,
              HasSubstr("\"unregistered\": \"10000003-2003-3003-0300-6677889903aa\""));
  std::pair<int, std::string> again =
      Cli({"keys", "unregister", "10000003-2003-3003-0300-6677889903aa"});
  EXPECT_EQ(again.first, 1);
  EXPECT_THAT(again.second, HasSubstr("Tcsip_UnregisterKey failed: 0xE0282020"));
  std::pair<int, std::string> check = Cli({"keys", "check"}, {"KESTTCS_HOME=" + Home().string()});
  EXPECT_EQ(check.first, 0) << check.second;
  EXPECT_THAT(check.second, HasSubstr("5 record slots: 4 valid, 1 deleted"));

  ASSERT_EQ(daemon.Stop(), 0);
  ASSERT_TRUE(daemon.Start());
  OpenContext();
  // Loaded from the file: file order, the same parents.
  EXPECT_THAT(Enumerate(), ElementsAre(Listed{kSrk, {}}, Listed{a, kSrk}, Listed{b, a},
                                       Listed{MakeUuid(4), kSrk}));
  ASSERT_EQ(Tcsi_GetRegisteredKeyBlob(hContext_, MakeUuid(4), &size, &blob), TSS_SUCCESS);
  EXPECT_EQ(Bytes(blob, blob + size), blobD);
  Tcs_FreeBuffer(blob);
  EXPECT_EQ(daemon.Stop(), 0);
}

TEST_F(RegisteredKeysServiceTest, WithoutAnOwnerTheKeysAreSetAsideOnce) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  const fs::path data = Home() / "data" / "KestData.dat";
  ASSERT_TRUE(daemon.Start());
  OpenContext();
  EXPECT_THAT(Enumerate(), IsEmpty());
  ASSERT_EQ(Register(MakeUuid(1), kSrk, KeyBlob({})), TSS_SUCCESS);
  ASSERT_EQ(daemon.Stop(), 0);

  // Started without an owner, the file with the key went to KestData.dat.bak.
  ASSERT_TRUE(daemon.Start());
  OpenContext();
  EXPECT_THAT(Enumerate(), IsEmpty());
  std::pair<int, std::string> bak = Cli({"keys", "check", "--file", data.string() + ".bak"});
  EXPECT_EQ(bak.first, 0) << bak.second;
  EXPECT_THAT(bak.second, HasSubstr("1 record slots: 1 valid"));
  ASSERT_EQ(Register(MakeUuid(2), kSrk, KeyBlob({})), TSS_SUCCESS);
  ASSERT_EQ(daemon.Stop(), 0);

  // A .bak is there already: this time the file stays and the key with it.
  ASSERT_TRUE(daemon.Start());
  OpenContext();
  EXPECT_THAT(Enumerate(), ElementsAre(Listed{MakeUuid(2), kSrk}));
  EXPECT_EQ(daemon.Stop(), 0);
}

TEST_F(RegisteredKeysServiceTest, KeysCheckTellsWhatIsWrongByItsExitStatus) {
  const fs::path file = fs::path(dir_.path()) / "KestData.dat";
  const Bytes good = ReadHexFixture("three_records_one_reused.hex");
  auto check = [&](const Bytes& bytes) {
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return Cli({"keys", "check", "--file", file.string()}).first;
  };
  EXPECT_EQ(check(good), 0);
  EXPECT_EQ(check({}), 0);
  Bytes damaged = good;
  damaged[300] ^= 1;
  EXPECT_EQ(check(damaged), 3);
  // A count one short leaves 125 bytes after the last record; with the old checksum the checksum
  // is wrong as well, with the one of the new count (computed separately) only the records.
  Bytes both = good;
  both[4] = 2;
  EXPECT_EQ(check(both), 5);
  Bytes malformed = both;
  const Bytes checksum = {0xf3, 0x55, 0x7b, 0x70};
  std::copy(checksum.begin(), checksum.end(), malformed.begin());
  EXPECT_EQ(check(malformed), 4);
  std::pair<int, std::string> missing =
      Cli({"--json", "keys", "check", "--file", (fs::path(dir_.path()) / "none").string()});
  EXPECT_EQ(missing.first, 1);
  EXPECT_THAT(missing.second, HasSubstr("\"error\": \"cannot read"));
}

}  // namespace
}  // namespace kesttcs::testing
