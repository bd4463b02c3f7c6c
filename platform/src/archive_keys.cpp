#include "archive_keys.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <openssl/pem.h>

#include "vesk/root.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::platform::archive {
namespace {

// A public key file is a few hundred bytes; anything far larger is not one.
constexpr off_t kMaxKeyFileSize = 64 * 1024;

struct DirClose {
  void operator()(DIR* d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The Ed25519 public key in the PEM file `name` of `dir_fd`, or null.
EvpPkeyPtr ReadPublicKey(int dir_fd, const std::string& name) {
  UniqueFd fd(openat(dir_fd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxKeyFileSize)
    return nullptr;
  std::string text(static_cast<size_t>(st.st_size), '\0');
  size_t got = 0;
  while (got < text.size()) {
    ssize_t n = read(fd.get(), &text[got], text.size() - got);
    if (n <= 0)
      return nullptr;
    got += static_cast<size_t>(n);
  }
  BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (!bio)
    return nullptr;
  EvpPkeyPtr key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519)
    return nullptr;
  return key;
}

}  // namespace

std::string KeyDirectory(int key_type) {
  return RootPath("/usr/vesk/etc/keys/" + std::to_string(key_type));
}

Status FindTrustedKey(int key_type, const envelope::KeyId& key_id, EvpPkeyPtr* key) {
  const std::string dir = KeyDirectory(key_type);
  UniqueFd dir_fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir_fd)
    return Fail(VESKARCHIVE_E_UNKNOWN_KEY, "no trusted keys in " + dir);
  // fdopendir takes over the descriptor it is given, so give it a duplicate.
  UniqueFd dup(fcntl(dir_fd.get(), F_DUPFD_CLOEXEC, 0));
  DirPtr listing(dup ? fdopendir(dup.get()) : nullptr);
  if (!listing)
    return Fail(VESKARCHIVE_E_UNKNOWN_KEY, "cannot list " + dir);
  dup.release();  // now owned by `listing`
  std::vector<std::string> names;
  while (const dirent* e = readdir(listing.get())) {
    std::string name(e->d_name);
    if (name[0] != '.' && EndsWith(name, ".pem"))
      names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    EvpPkeyPtr candidate = ReadPublicKey(dir_fd.get(), name);
    envelope::KeyId id;
    if (candidate && envelope::ComputeKeyId(candidate.get(), &id) && id == key_id) {
      *key = std::move(candidate);
      return {};
    }
  }
  return Fail(VESKARCHIVE_E_UNKNOWN_KEY, "no trusted key of type " + std::to_string(key_type) +
                                             " has the package's key id (" + dir + ")");
}

}  // namespace vesk::platform::archive
