#include "platform/file_digest.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"

namespace {

struct DigestFreer {
  void operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }
};
using Digest = std::unique_ptr<EVP_MD_CTX, DigestFreer>;

bool addFile(EVP_MD_CTX* digest, std::FILE* file) {
  std::vector<char> piece(65536);
  std::size_t length = 0;
  do {
    length = std::fread(piece.data(), 1, piece.size(), file);
  } while (length > 0 && EVP_DigestUpdate(digest, piece.data(), length) == 1);
  return length == 0 && std::feof(file) != 0;
}

}  // namespace

std::string fileDigest(const std::string& path) {
  const File file = openToRead(path);
  const Digest digest(EVP_MD_CTX_new());
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes = {};
  unsigned int length = 0;
  const bool isWhole = file && digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1 &&
                       addFile(digest.get(), file.get()) &&
                       EVP_DigestFinal_ex(digest.get(), bytes.data(), &length) == 1;
  std::string digits;
  for (unsigned int at = 0; isWhole && at < length; ++at) {
    digits += formatText("%02x", static_cast<unsigned int>(bytes.at(at)));
  }
  return digits;
}
