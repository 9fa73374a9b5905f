// `kesttcs-cli keys loaded`: where each key is shown to be, "-" or null for no parent and no UUID,
// and the swap counters.
#include "tools/key_cache_format.h"

#include <gtest/gtest.h>

namespace kesttcs::cli {
namespace {

TEST(KeyCacheFormatTest, SlotsParentsAndUuidsShowAsTheyAre) {
  KESTTCS_KEY_CACHE_ENTRY entries[] = {
      {0x22330002, KESTTCS_KEY_UNLOADED, KESTTCS_NO_SLOT, 0x22330001, 0, 0, {}},
      {0x22330001,
       KESTTCS_KEY_SWAPPED,
       KESTTCS_NO_SLOT,
       0x40000000,
       3,
       1,
       {0x5107A6E0, 1, 2, 3, 4, {5, 6, 7, 8, 9, 10}}},
      {0x40000000,
       KESTTCS_KEY_RESIDENT,
       0x40000000,
       0xFFFFFFFF,
       1,
       1,
       {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}}},
  };
  const KESTTCS_KEY_CACHE cache{12, 9, 3, entries};
  EXPECT_EQ(KeyCacheText(cache),
            "3 keys cached; 12 swapped out and 9 swapped in since the service started\n"
            "TCS handle   TPM slot     parent       refs  UUID\n"
            "0x22330002   not loaded   0x22330001      0  -\n"
            "0x22330001   swapped      0x40000000      3  5107a6e0-0001-0002-0304-05060708090a\n"
            "0x40000000   0x40000000   -               1  00000000-0000-0000-0000-000000000001\n");
  const nlohmann::ordered_json json = KeyCacheJson(cache);
  EXPECT_EQ(json["swap_outs"], 12);
  EXPECT_EQ(json["swap_ins"], 9);
  ASSERT_EQ(json["keys"].size(), 3u);
  EXPECT_EQ(json["keys"][0]["state"], "unloaded");
  EXPECT_TRUE(json["keys"][0]["uuid"].is_null());
  EXPECT_EQ(json["keys"][1]["tpm_slot"], "swapped");
  EXPECT_EQ(json["keys"][1]["references"], 3);
  EXPECT_EQ(json["keys"][2]["tpm_slot"], "0x40000000");
  EXPECT_TRUE(json["keys"][2]["parent"].is_null());
  EXPECT_EQ(json["keys"][2]["uuid"], "00000000-0000-0000-0000-000000000001");
}

}  // namespace
}  // namespace kesttcs::cli
