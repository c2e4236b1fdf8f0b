#include "platform/file_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "platform/handles.h"
#include "platform/text.h"

namespace {

struct DigestFreer {
  void operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }
};
using Digest = std::unique_ptr<EVP_MD_CTX, DigestFreer>;

Descriptor openOrdinaryFile(const std::string& path) {
  // Opening a pipe would wait for a writer.
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    file.reset();
  }
  return file;
}

bool addFile(EVP_MD_CTX* digest, int file) {
  std::vector<char> piece(65536);
  ssize_t length = 0;
  do {
    length = read(file, piece.data(), piece.size());
  } while (length > 0 && EVP_DigestUpdate(digest, piece.data(), static_cast<std::size_t>(length)) == 1);
  return length == 0;
}

}  // namespace

std::string fileDigest(const std::string& path) {
  const Descriptor file = openOrdinaryFile(path);
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
