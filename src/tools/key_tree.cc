#include "tools/key_tree.h"

#include <set>

#include "tools/key_format.h"

namespace kesttcs::cli {
namespace {

using nlohmann::ordered_json;

// Fills `node`'s children from `keys`, marking each key taken (which also ends parent cycles).
void AddChildren(KeyTreeNode& node, const std::vector<ListedKey>& keys,
                 std::set<std::size_t>& taken) {
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (taken.contains(i) || !SameUuid(keys[i].info.parentKeyUUID, node.uuid)) continue;
    taken.insert(i);
    node.children.push_back({keys[i].info.keyUUID, &keys[i], {}});
  }
  for (KeyTreeNode& child : node.children) AddChildren(child, keys, taken);
}

std::string KeyLine(const ListedKey& key) {
  return UuidText(key.info.keyUUID) + "  " + key.usage + "  auth " +
         AuthDataUsageName(key.info.bAuthDataUsage) + "  " +
         (key.info.fIsLoaded != 0 ? "loaded" : "not loaded");
}

void AppendText(const KeyTreeNode& node, int depth, std::string& text) {
  text += std::string(2 * static_cast<std::size_t>(depth), ' ');
  text += node.key != nullptr ? KeyLine(*node.key) : UuidText(node.uuid) + "  (SRK, no record)";
  text += '\n';
  for (const KeyTreeNode& child : node.children) AppendText(child, depth + 1, text);
}

ordered_json KeyJson(const ListedKey& key) {
  return {{"uuid", UuidText(key.info.keyUUID)},
          {"parent", UuidText(key.info.parentKeyUUID)},
          {"usage", key.usage},
          {"auth", AuthDataUsageName(key.info.bAuthDataUsage)},
          {"loaded", key.info.fIsLoaded != 0}};
}

ordered_json NodeJson(const KeyTreeNode& node) {
  ordered_json json = node.key != nullptr
                          ? KeyJson(*node.key)
                          : ordered_json{{"uuid", UuidText(node.uuid)}, {"record", false}};
  json["children"] = ordered_json::array();
  for (const KeyTreeNode& child : node.children) json["children"].push_back(NodeJson(child));
  return json;
}

}  // namespace

KeyTree BuildKeyTree(const std::vector<ListedKey>& keys) {
  KeyTree tree;
  tree.srk.uuid = kSrkUuid;
  std::set<std::size_t> taken;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (SameUuid(keys[i].info.keyUUID, kSrkUuid) && tree.srk.key == nullptr) {
      tree.srk.key = &keys[i];
      taken.insert(i);
    }
  }
  AddChildren(tree.srk, keys, taken);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!taken.contains(i)) tree.elsewhere.push_back(&keys[i]);
  }
  return tree;
}

std::string KeyTreeText(const KeyTree& tree) {
  std::string text;
  AppendText(tree.srk, 0, text);
  if (!tree.elsewhere.empty()) text += "not under the SRK:\n";
  for (const ListedKey* key : tree.elsewhere) {
    text += "  " + KeyLine(*key) + "  parent " + UuidText(key->info.parentKeyUUID) + "\n";
  }
  return text;
}

ordered_json KeyTreeJson(const KeyTree& tree) {
  ordered_json elsewhere = ordered_json::array();
  for (const ListedKey* key : tree.elsewhere) elsewhere.push_back(KeyJson(*key));
  return {{"keys", ordered_json::array({NodeJson(tree.srk)})}, {"not_under_srk", elsewhere}};
}

}  // namespace kesttcs::cli
