// The signed package envelope, byte by byte: the one definition shared by the
// platform's reader (veskarchive_*) and the publisher's signer. The prose form is
// docs/package-format.md; keep the two in step.
//
//   offset        size  field
//   0             8     header magic "VESKPKG1"
//   8             8     archive length L (unsigned, big-endian)
//   16            L     the archive (tar, optionally gzip, xz or zstd compressed)
//   16+L          64    Ed25519 signature of the signed message (below)
//   16+L+64       32    key id: SHA-256 of the signer's raw 32-byte public key
//   16+L+96       4     key type (unsigned, big-endian)
//   16+L+100      4     format version, 1 (unsigned, big-endian)
//   16+L+104      8     archive length L again (unsigned, big-endian)
//   16+L+112      16    trailer magic "VESKDBUD-SIGNED\n"
//   version 2 only, the binding section:
//   16+L+128      8     binding length M (unsigned, big-endian)
//   16+L+136      M     the binding: a JSON object naming the database, version,
//                       kind and manifest the package installs
//
// Signed message: SHA-512 of bytes [0, 16+L) followed by trailer bytes [64, 128)
// (128 bytes), so the key id, key type, version and length are signed too; in
// version 2 followed by the SHA-512 of the binding section [16+L+128, end)
// (192 bytes), so a package cannot be presented as another database's or release's.
// The leading header lets a reader tell a truncated package (header present,
// file too short) from a file that is no package at all.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vesk::envelope {

inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kTrailerSize = 128;
inline constexpr std::size_t kSignatureSize = 64;
inline constexpr std::size_t kKeyIdSize = 32;
inline constexpr std::size_t kDigestSize = 64;  // SHA-512
inline constexpr std::size_t kRawPublicKeySize = 32;
inline constexpr std::uint32_t kFormatVersion = 1;       // no binding
inline constexpr std::uint32_t kBoundFormatVersion = 2;  // with a binding section
inline constexpr std::size_t kBindingLengthSize = 8;
// Manifests of large releases fit; nothing is read into memory beyond this.
inline constexpr std::uint64_t kMaxBindingLength = std::uint64_t{64} << 20;
// No package is near this; it keeps 16 + L + 128 far from overflow.
inline constexpr std::uint64_t kMaxArchiveLength = std::uint64_t{1} << 56;

inline constexpr char kHeaderMagic[] = "VESKPKG1";
inline constexpr std::size_t kHeaderMagicSize = sizeof kHeaderMagic - 1;  // 8
inline constexpr char kTrailerMagic[] = "VESKDBUD-SIGNED\n";
inline constexpr std::size_t kTrailerMagicSize = sizeof kTrailerMagic - 1;  // 16

// Trailer offsets.
inline constexpr std::size_t kSignatureOffset = 0;
inline constexpr std::size_t kKeyIdOffset = 64;
inline constexpr std::size_t kKeyTypeOffset = 96;
inline constexpr std::size_t kVersionOffset = 100;
inline constexpr std::size_t kLengthOffset = 104;
inline constexpr std::size_t kTrailerMagicOffset = 112;
// The signed part of the trailer: everything after the signature.
inline constexpr std::size_t kSignedTrailerOffset = kKeyIdOffset;

static_assert(kHeaderMagicSize == 8 && kTrailerMagicSize == 16);
static_assert(kTrailerMagicOffset + kTrailerMagicSize == kTrailerSize);

using Header = std::array<std::uint8_t, kHeaderSize>;
using Trailer = std::array<std::uint8_t, kTrailerSize>;
using Signature = std::array<std::uint8_t, kSignatureSize>;
using KeyId = std::array<std::uint8_t, kKeyIdSize>;
using Digest = std::array<std::uint8_t, kDigestSize>;
using SignedMessage = std::array<std::uint8_t, kDigestSize + kTrailerSize - kSignedTrailerOffset>;
using BoundSignedMessage = std::array<std::uint8_t, sizeof(SignedMessage) + kDigestSize>;

struct TrailerFields {
  Signature signature{};
  KeyId key_id{};
  std::uint32_t key_type = 0;
  std::uint32_t version = kFormatVersion;
  std::uint64_t archive_length = 0;
};

inline void PutBig(std::uint8_t* out, std::uint64_t value, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i)
    out[i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
}

inline std::uint64_t GetBig(const std::uint8_t* in, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i)
    value = (value << 8) | in[i];
  return value;
}

inline Header EncodeHeader(std::uint64_t archive_length) {
  Header h{};
  std::memcpy(h.data(), kHeaderMagic, kHeaderMagicSize);
  PutBig(h.data() + kHeaderMagicSize, archive_length, 8);
  return h;
}

// True when the first `size` bytes (at most 8 are looked at) agree with the header magic.
inline bool StartsLikeHeader(const std::uint8_t* bytes, std::size_t size) {
  const std::size_t n = size < kHeaderMagicSize ? size : kHeaderMagicSize;
  return std::memcmp(bytes, kHeaderMagic, n) == 0;
}

inline std::uint64_t HeaderArchiveLength(const Header& h) {
  return GetBig(h.data() + kHeaderMagicSize, 8);
}

inline Trailer EncodeTrailer(const TrailerFields& f) {
  Trailer t{};
  std::memcpy(t.data() + kSignatureOffset, f.signature.data(), kSignatureSize);
  std::memcpy(t.data() + kKeyIdOffset, f.key_id.data(), kKeyIdSize);
  PutBig(t.data() + kKeyTypeOffset, f.key_type, 4);
  PutBig(t.data() + kVersionOffset, f.version, 4);
  PutBig(t.data() + kLengthOffset, f.archive_length, 8);
  std::memcpy(t.data() + kTrailerMagicOffset, kTrailerMagic, kTrailerMagicSize);
  return t;
}

// False when the trailer magic is absent; the other fields are then not filled.
inline bool DecodeTrailer(const Trailer& t, TrailerFields* f) {
  if (std::memcmp(t.data() + kTrailerMagicOffset, kTrailerMagic, kTrailerMagicSize) != 0)
    return false;
  std::memcpy(f->signature.data(), t.data() + kSignatureOffset, kSignatureSize);
  std::memcpy(f->key_id.data(), t.data() + kKeyIdOffset, kKeyIdSize);
  f->key_type = static_cast<std::uint32_t>(GetBig(t.data() + kKeyTypeOffset, 4));
  f->version = static_cast<std::uint32_t>(GetBig(t.data() + kVersionOffset, 4));
  f->archive_length = GetBig(t.data() + kLengthOffset, 8);
  return true;
}

inline SignedMessage MakeSignedMessage(const Digest& digest, const Trailer& trailer) {
  SignedMessage m{};
  std::memcpy(m.data(), digest.data(), kDigestSize);
  std::memcpy(m.data() + kDigestSize, trailer.data() + kSignedTrailerOffset,
              kTrailerSize - kSignedTrailerOffset);
  return m;
}

inline BoundSignedMessage MakeBoundSignedMessage(const Digest& digest, const Trailer& trailer,
                                                 const Digest& binding_digest) {
  BoundSignedMessage m{};
  const SignedMessage head = MakeSignedMessage(digest, trailer);
  std::memcpy(m.data(), head.data(), head.size());
  std::memcpy(m.data() + head.size(), binding_digest.data(), kDigestSize);
  return m;
}

// The key id of an Ed25519 key (public or private): SHA-256 of its raw public key.
// False when `key` is not an Ed25519 key or the crypto library fails.
bool ComputeKeyId(EVP_PKEY* key, KeyId* id);

}  // namespace vesk::envelope
