// The registered keys as a tree under the SRK, as `kesttcs-cli keys list` shows them.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// One registered key as the service described it, with its usage's name.
struct ListedKey {
  TSS_KM_KEYINFO info{};
  std::string usage;
};

struct KeyTreeNode {
  TSS_UUID uuid{};
  const ListedKey* key = nullptr;  // null for an SRK without a record
  std::vector<KeyTreeNode> children;
};

struct KeyTree {
  KeyTreeNode srk;
  // Keys whose chain of parents does not reach the SRK, in the order listed.
  std::vector<const ListedKey*> elsewhere;
};

// Arranges `keys` (which must outlive the tree) under the SRK by their parents, children in the
// order listed.
KeyTree BuildKeyTree(const std::vector<ListedKey>& keys);

// One line per key, indented by depth: UUID, usage, auth rule, loaded or not; then the keys not
// under the SRK with their parents.
std::string KeyTreeText(const KeyTree& tree);

// {"keys": [the SRK node, with "children"], "not_under_srk": [...]}; each key with "uuid",
// "parent", "usage", "auth", "loaded".
nlohmann::ordered_json KeyTreeJson(const KeyTree& tree);

}  // namespace kesttcs::cli
