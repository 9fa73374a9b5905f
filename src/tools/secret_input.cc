#include "tools/secret_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include <kesttcs/tcs_auth.h>

#include "tools/typed_line.h"

namespace kesttcs::cli {
namespace {

void DropLineEnd(std::string& text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
}

std::optional<TPM_SECRET> FromPhrase(std::string phrase) {
  TPM_SECRET secret{};
  const TSS_RESULT r = KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(phrase.data()),
                                                   static_cast<UINT32>(phrase.size()), &secret);
  std::fill(phrase.begin(), phrase.end(), '\0');
  if (r != 0) return std::nullopt;
  return secret;
}

}  // namespace

std::optional<TPM_SECRET> ReadSecret(const std::string& source, const std::string& prompt,
                                     bool confirm, std::string* problem) {
  if (source.empty()) {
    TPM_SECRET secret{};
    KestAuth_WellKnownSecret(&secret);
    return secret;
  }
  if (source == "-") {
    std::optional<std::string> phrase = TypedLine(prompt + ": ");
    if (!phrase) {
      *problem = "no terminal to ask for the " + prompt + " on";
      return std::nullopt;
    }
    if (confirm && TypedLine(prompt + " again: ") != phrase) {
      *problem = "the two entries of the " + prompt + " differ";
      return std::nullopt;
    }
    return FromPhrase(std::move(*phrase));
  }
  std::ifstream file(source, std::ios::binary);
  if (!file) {
    *problem = "cannot read " + source + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string phrase{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  DropLineEnd(phrase);
  return FromPhrase(std::move(phrase));
}

bool ReadObjectAndOwnerSecrets(const std::string& objectSource, const std::string& objectPrompt,
                               bool newObject, const std::string& ownerSource, TPM_SECRET* object,
                               TPM_SECRET* owner, std::string* problem) {
  std::optional<TPM_SECRET> objectSecret =
      ReadSecret(objectSource, objectPrompt, newObject, problem);
  if (!objectSecret) return false;
  std::optional<TPM_SECRET> ownerSecret = ReadSecret(ownerSource, "owner secret", false, problem);
  if (!ownerSecret) return false;
  *object = *objectSecret;
  *owner = *ownerSecret;
  return true;
}

}  // namespace kesttcs::cli
