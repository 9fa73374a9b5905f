// kesttcs-cli key create and keys loaded through the real kesttcsd on the embedded libtpms TPM:
// no key without an owner (said in words); a storage key under the SRK and a signing key with a
// usage secret under it once registered; an existing file is kept unless --force; an unknown parent
// and a wrong parent secret (TPM_AUTHFAIL) are explained; the blob written loads and answers with
// its own public key once its usage secret is proven; and the cache listing shows the loaded keys
// with their parents, references and registered UUIDs.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;
using nlohmann::json;

constexpr char kStorageUuid[] = "5107a6e0-0001-0002-0304-05060708090a";
constexpr size_t kAuthDataUsageOffset = 10;

class KeyCliTest : public ::testing::Test {
 protected:
  fs::path Path(const std::string& name) const { return fs::path(dir_.path()) / name; }
  std::pair<int, std::string> Cli(const std::vector<std::string>& args) {
    return RunKesttcsCli(args, daemon_.socket(), Path("cli.txt"));
  }
  Bytes Blob(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
  }

  TempDir dir_;
  KesttcsdProcess daemon_{fs::path(dir_.path()) / "home", /*owned=*/false};
};

TEST_F(KeyCliTest, CreatesKeysUnderTheSrkAndRegisteredParentsAndListsTheCache) {
  ASSERT_TRUE(daemon_.Start());
  auto [status, text] = Cli({"key", "create", "--parent", "srk", "--usage", "sign", "--out",
                             Path("early.blob").string()});
  EXPECT_EQ(status, 1) << text;
  EXPECT_NE(text.find("no owner"), std::string::npos) << text;
  EXPECT_FALSE(fs::exists(Path("early.blob")));
  std::tie(status, text) = Cli({"provision"});
  ASSERT_EQ(status, 0) << text;

  std::tie(status, text) = Cli({"--json", "key", "create", "--parent", "srk", "--usage", "storage",
                                "--out", Path("storage.blob").string()});
  ASSERT_EQ(status, 0) << text;
  EXPECT_EQ(json::parse(text)["usage"], "storage");
  const Bytes storage = Blob("storage.blob");
  ASSERT_EQ(json::parse(text)["blob_bytes"], storage.size());
  EXPECT_EQ(storage[kAuthDataUsageOffset], wrapped_keys::kAuthNever);

  // The file stays unless --force.
  std::tie(status, text) = Cli({"key", "create", "--parent", "srk", "--usage", "bind", "--bits",
                                "512", "--out", Path("storage.blob").string()});
  EXPECT_EQ(status, 2) << text;
  EXPECT_NE(text.find("--force"), std::string::npos) << text;
  EXPECT_EQ(Blob("storage.blob"), storage);

  std::tie(status, text) = Cli({"keys", "register", "--uuid", kStorageUuid, "--parent", "srk",
                                "--blob", Path("storage.blob").string()});
  ASSERT_EQ(status, 0) << text;
  daemon_process::WriteFile(Path("usage.txt"), "usage pass phrase\n");
  std::tie(status, text) =
      Cli({"key", "create", "--parent", kStorageUuid, "--usage", "sign", "--bits", "512",
           "--auth-secret", Path("usage.txt").string(), "--out", Path("sign.blob").string()});
  ASSERT_EQ(status, 0) << text;
  const Bytes signing = Blob("sign.blob");
  ASSERT_GT(signing.size(), kAuthDataUsageOffset);
  EXPECT_EQ(signing[kAuthDataUsageOffset], wrapped_keys::kAuthAlways);

  std::tie(status, text) = Cli({"key", "create", "--parent", "5107a6e0-0001-0002-0304-0506070809ff",
                                "--usage", "sign", "--out", Path("orphan.blob").string()});
  EXPECT_EQ(status, 1) << text;
  EXPECT_NE(text.find("no key is registered"), std::string::npos) << text;
  daemon_process::WriteFile(Path("wrong.txt"), "not the parent's secret\n");
  std::tie(status, text) =
      Cli({"key", "create", "--parent", kStorageUuid, "--parent-secret", Path("wrong.txt").string(),
           "--usage", "bind", "--bits", "512", "--out", Path("bind.blob").string()});
  EXPECT_EQ(status, 1) << text;
  EXPECT_NE(text.find("TPM_AUTHFAIL"), std::string::npos) << text;
  EXPECT_FALSE(fs::exists(Path("bind.blob")));
  std::tie(status, text) = Cli({"key", "create", "--parent", "srk", "--usage", "bind", "--bits",
                                "512", "--force", "--out", Path("storage.blob").string()});
  EXPECT_EQ(status, 0) << text;
  EXPECT_NE(Blob("storage.blob"), storage);

  // The blobs load (the storage key by its UUID) and the signing key answers with its own public
  // part; the cache listing shows both, the storage key by its UUID.
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  const TCS_KEY_HANDLE storageKey = wrapped_keys::Load(h, wrapped_keys::kSrk, storage);
  const TCS_KEY_HANDLE signingKey = wrapped_keys::Load(h, storageKey, signing);
  // Its use needs the usage secret the pass phrase gave it, proven over an OIAP session.
  const std::string phrase = "usage pass phrase";
  TPM_SECRET usage{};
  ASSERT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(phrase.data()),
                                        UINT32(phrase.size()), &usage),
            TSS_SUCCESS);
  KESTTCS_AUTH_SESSION session{};
  ASSERT_EQ(KestAuth_OpenOIAP(h, &usage, &session), TSS_SUCCESS);
  TPM_AUTH auth{};
  ASSERT_EQ(KestAuth_Authorize(&session, TPM_ORD_GetPubKey, nullptr, 0, 0, &auth), TSS_SUCCESS);
  UINT32 size = 0;
  BYTE* pub = nullptr;
  ASSERT_EQ(Tcsip_GetPubKey(h, signingKey, &auth, &size, &pub), TSS_SUCCESS);
  const Bytes pubKey(pub, pub + size);
  Tcs_FreeBuffer(pub);
  EXPECT_EQ(pubKey, wrapped_keys::PubKeyOf(signing));
  EXPECT_EQ(
      KestAuth_Verify(&session, TPM_ORD_GetPubKey, pubKey.data(), UINT32(pubKey.size()), &auth),
      TSS_SUCCESS);

  std::tie(status, text) = Cli({"keys", "loaded", "--json"});
  ASSERT_EQ(status, 0) << text;
  const json listing = json::parse(text);
  bool sawStorage = false, sawSigning = false;
  for (const json& key : listing["keys"]) {
    if (key["uuid"] == kStorageUuid) {
      sawStorage = true;
      EXPECT_EQ(key["references"], 1) << key;
    }
    if (key["parent"].is_string() && !key["uuid"].is_string()) {
      sawSigning = true;
      EXPECT_EQ(key["state"], "resident") << key;
      EXPECT_EQ(key["references"], 1) << key;
    }
  }
  EXPECT_TRUE(sawStorage) << text;
  EXPECT_TRUE(sawSigning) << text;
  std::tie(status, text) = Cli({"keys", "loaded"});
  EXPECT_EQ(status, 0) << text;
  EXPECT_NE(text.find(kStorageUuid), std::string::npos) << text;
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

}  // namespace
}  // namespace kesttcs::testing
