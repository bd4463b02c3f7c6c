#include "archive_verify.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "archive_keys.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::platform::archive {
namespace {

using namespace envelope;

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// SHA-512 of bytes [0, length) of `fd`, read in chunks.
Status HashPrefix(int fd, std::uint64_t length, Digest* digest) {
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha512(), nullptr) != 1)
    return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 unavailable");
  std::vector<std::uint8_t> buf(kChunkSize);
  std::uint64_t done = 0;
  while (done < length) {
    const size_t want = static_cast<size_t>(std::min<std::uint64_t>(buf.size(), length - done));
    ssize_t n = PreadFully(fd, buf.data(), want, static_cast<off_t>(done));
    if (n < 0)
      return Fail(VESKARCHIVE_E_OPEN, std::string("read failed: ") + std::strerror(errno));
    if (static_cast<size_t>(n) != want)
      return Fail(VESKARCHIVE_E_TRUNCATED, "the file shrank while it was read");
    if (EVP_DigestUpdate(ctx.get(), buf.data(), want) != 1)
      return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 failed");
    done += want;
  }
  unsigned int out_len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest->data(), &out_len) != 1 || out_len != kDigestSize)
    return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 failed");
  return {};
}

// The envelope's fields, checked against the file size and each other. A
// version 2 package also has its binding section read into `binding`.
Status ReadEnvelope(int fd, std::uint64_t file_size, std::uint64_t* length, Trailer* trailer,
                    TrailerFields* fields, std::string* binding) {
  Header header{};
  const size_t head = static_cast<size_t>(std::min<std::uint64_t>(file_size, kHeaderSize));
  if (PreadFully(fd, header.data(), head, 0) != static_cast<ssize_t>(head))
    return Fail(VESKARCHIVE_E_OPEN, std::string("read failed: ") + std::strerror(errno));
  if (file_size == 0 || !StartsLikeHeader(header.data(), head))
    return Fail(VESKARCHIVE_E_NO_ENVELOPE, "no package header");
  if (head < kHeaderSize)
    return Fail(VESKARCHIVE_E_TRUNCATED, "shorter than the package header");
  *length = HeaderArchiveLength(header);
  if (*length > kMaxArchiveLength)
    return Fail(VESKARCHIVE_E_MALFORMED, "impossible archive length");
  const std::uint64_t trailer_end = kHeaderSize + *length + kTrailerSize;
  const auto truncated = [file_size](std::uint64_t expected) {
    return Fail(VESKARCHIVE_E_TRUNCATED,
                std::to_string(file_size) + " bytes of the announced " + std::to_string(expected));
  };
  if (file_size < trailer_end)
    return truncated(trailer_end);
  if (PreadFully(fd, trailer->data(), kTrailerSize, static_cast<off_t>(kHeaderSize + *length)) !=
      static_cast<ssize_t>(kTrailerSize))
    return Fail(VESKARCHIVE_E_OPEN, std::string("read failed: ") + std::strerror(errno));
  if (!DecodeTrailer(*trailer, fields))
    return Fail(VESKARCHIVE_E_MALFORMED, "no trailer magic");
  if (fields->version != kFormatVersion && fields->version != kBoundFormatVersion)
    return Fail(VESKARCHIVE_E_MALFORMED,
                "unknown format version " + std::to_string(fields->version));
  if (fields->archive_length != *length)
    return Fail(VESKARCHIVE_E_MALFORMED, "header and trailer disagree on the archive length");

  std::uint64_t expected = trailer_end;
  if (fields->version == kBoundFormatVersion) {
    std::uint8_t size_bytes[kBindingLengthSize];
    if (file_size < trailer_end + kBindingLengthSize)
      return truncated(trailer_end + kBindingLengthSize);
    if (PreadFully(fd, size_bytes, sizeof size_bytes, static_cast<off_t>(trailer_end)) !=
        static_cast<ssize_t>(sizeof size_bytes))
      return Fail(VESKARCHIVE_E_OPEN, std::string("read failed: ") + std::strerror(errno));
    const std::uint64_t binding_length = GetBig(size_bytes, kBindingLengthSize);
    if (binding_length > kMaxBindingLength)
      return Fail(VESKARCHIVE_E_MALFORMED, "impossible binding length");
    expected = trailer_end + kBindingLengthSize + binding_length;
    if (file_size < expected)
      return truncated(expected);
    binding->resize(static_cast<size_t>(binding_length));
    if (PreadFully(fd, binding->data(), binding->size(),
                   static_cast<off_t>(trailer_end + kBindingLengthSize)) !=
        static_cast<ssize_t>(binding->size()))
      return Fail(VESKARCHIVE_E_OPEN, std::string("read failed: ") + std::strerror(errno));
  }
  if (file_size > expected)
    return Fail(VESKARCHIVE_E_MALFORMED,
                std::to_string(file_size - expected) + " bytes after the trailer");
  return {};
}

// SHA-512 of the binding section as it stands in the file: its length field
// and its bytes.
Status HashBinding(const std::string& binding, Digest* digest) {
  std::uint8_t size_bytes[kBindingLengthSize];
  PutBig(size_bytes, binding.size(), kBindingLengthSize);
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  unsigned int out_len = 0;
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha512(), nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), size_bytes, sizeof size_bytes) != 1 ||
      EVP_DigestUpdate(ctx.get(), binding.data(), binding.size()) != 1 ||
      EVP_DigestFinal_ex(ctx.get(), digest->data(), &out_len) != 1 || out_len != kDigestSize)
    return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 failed");
  return {};
}

}  // namespace

ssize_t PreadFully(int fd, void* buf, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    ssize_t n =
        pread(fd, static_cast<char*>(buf) + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return -1;
    if (n == 0)
      break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

Status VerifyPackage(const std::string& path, int key_type, VerifiedPackage* package) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused below.
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd)
    return Fail(VESKARCHIVE_E_OPEN, path + ": " + std::strerror(errno));
  struct stat st;
  if (fstat(fd.get(), &st) != 0)
    return Fail(VESKARCHIVE_E_OPEN, path + ": " + std::strerror(errno));
  if (!S_ISREG(st.st_mode))
    return Fail(VESKARCHIVE_E_NOT_REGULAR, path);

  std::uint64_t length = 0;
  Trailer trailer{};
  TrailerFields fields;
  std::string binding;
  Status s = ReadEnvelope(fd.get(), static_cast<std::uint64_t>(st.st_size), &length, &trailer,
                          &fields, &binding);
  if (!s.ok())
    return Fail(s.code, path + ": " + s.detail);
  if (fields.key_type != static_cast<std::uint32_t>(key_type))
    return Fail(VESKARCHIVE_E_KEY_TYPE, path + ": signed for key type " +
                                            std::to_string(fields.key_type) + ", not " +
                                            std::to_string(key_type));
  EvpPkeyPtr key;
  s = FindTrustedKey(key_type, fields.key_id, &key);
  if (!s.ok())
    return Fail(s.code, path + ": " + s.detail);

  Digest digest{};
  s = HashPrefix(fd.get(), kHeaderSize + length, &digest);
  const bool bound = fields.version == kBoundFormatVersion;
  Digest binding_digest{};
  if (s.ok() && bound)
    s = HashBinding(binding, &binding_digest);
  if (s.ok()) {
    if (bound) {
      const BoundSignedMessage m = MakeBoundSignedMessage(digest, trailer, binding_digest);
      s = VerifySignature(key.get(), fields.signature, m.data(), m.size());
    } else {
      const SignedMessage m = MakeSignedMessage(digest, trailer);
      s = VerifySignature(key.get(), fields.signature, m.data(), m.size());
    }
  }
  if (!s.ok())
    return Fail(s.code, path + ": " + s.detail);

  package->fd = std::move(fd);
  package->identity = st;
  package->archive_length = length;
  package->digest = digest;
  package->bound = bound;
  package->binding = std::move(binding);
  // A writer racing the hash would show here; later changes are caught at extraction.
  return CheckUnchanged(*package);
}

Status VerifySignature(EVP_PKEY* key, const envelope::Signature& signature,
                       const std::uint8_t* message, size_t size) {
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  // Ed25519 is one-shot and takes no digest of its own (NULL).
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key) != 1)
    return Fail(VESKARCHIVE_E_INTERNAL, "Ed25519 verification unavailable");
  if (EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), message, size) != 1)
    return Fail(VESKARCHIVE_E_BAD_SIGNATURE, "the signature does not match the signed bytes");
  return {};
}

Status CheckUnchanged(const VerifiedPackage& package) {
  struct stat now;
  if (fstat(package.fd.get(), &now) != 0)
    return Fail(VESKARCHIVE_E_OPEN, std::string("fstat failed: ") + std::strerror(errno));
  const struct stat& then = package.identity;
  // Not the change time: renaming another file over the path (which the held
  // descriptor survives) changes it too. A writer that restores the mtime is
  // still caught, by the hash each pass compares at its end.
  if (now.st_dev != then.st_dev || now.st_ino != then.st_ino || now.st_size != then.st_size ||
      !SameTime(now.st_mtim, then.st_mtim))
    return Fail(VESKARCHIVE_E_CHANGED, "the package was modified after it was opened");
  return {};
}

}  // namespace vesk::platform::archive
