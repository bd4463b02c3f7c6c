// The detached signature of a database-info document, byte by byte: the one
// definition shared by the publisher (which writes "<document>.sig") and the
// platform's verifier. The prose form is docs/package-format.md; keep the two
// in step.
//
//   offset  size  field
//   0       16    magic "VESKDBUD-INFOSIG"
//   16      4     format version, 1 (unsigned, big-endian)
//   20      4     key type (unsigned, big-endian)
//   24      8     issue time, seconds since the epoch (signed, big-endian)
//   32      8     expiry time, seconds since the epoch (signed, big-endian)
//   40      8     document length (unsigned, big-endian)
//   48      64    SHA-512 of the document's bytes
//   112     32    info version (the document's name, "db_ver"), ASCII, zero padded
//   144     32    key id: SHA-256 of the signer's raw 32-byte public key
//   176     64    Ed25519 signature of bytes [0, 176)
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "vesk_internal/envelope.h"

namespace vesk::info_signature {

inline constexpr std::size_t kSize = 240;
inline constexpr char kMagic[] = "VESKDBUD-INFOSIG";
inline constexpr std::size_t kMagicSize = sizeof kMagic - 1;  // 16
inline constexpr std::uint32_t kFormatVersion = 1;
inline constexpr std::size_t kInfoVersionSize = 32;
inline constexpr std::size_t kSignedSize = 176;

using Bytes = std::array<std::uint8_t, kSize>;

struct Fields {
  std::uint32_t key_type = 0;
  std::int64_t issued = 0;
  std::int64_t expires = 0;
  std::uint64_t document_length = 0;
  envelope::Digest document_digest{};
  std::string info_version;  // at most kInfoVersionSize bytes, no NUL
  envelope::KeyId key_id{};
  envelope::Signature signature{};
};

inline Bytes Encode(const Fields& f) {
  using envelope::PutBig;
  Bytes b{};
  std::memcpy(b.data(), kMagic, kMagicSize);
  PutBig(b.data() + 16, kFormatVersion, 4);
  PutBig(b.data() + 20, f.key_type, 4);
  PutBig(b.data() + 24, static_cast<std::uint64_t>(f.issued), 8);
  PutBig(b.data() + 32, static_cast<std::uint64_t>(f.expires), 8);
  PutBig(b.data() + 40, f.document_length, 8);
  std::memcpy(b.data() + 48, f.document_digest.data(), envelope::kDigestSize);
  std::memcpy(b.data() + 112, f.info_version.data(),
              f.info_version.size() < kInfoVersionSize ? f.info_version.size() : kInfoVersionSize);
  std::memcpy(b.data() + 144, f.key_id.data(), envelope::kKeyIdSize);
  std::memcpy(b.data() + 176, f.signature.data(), envelope::kSignatureSize);
  return b;
}

// False when the magic or the format version is not this one.
inline bool Decode(const Bytes& b, Fields* f) {
  using envelope::GetBig;
  if (std::memcmp(b.data(), kMagic, kMagicSize) != 0 || GetBig(b.data() + 16, 4) != kFormatVersion)
    return false;
  f->key_type = static_cast<std::uint32_t>(GetBig(b.data() + 20, 4));
  f->issued = static_cast<std::int64_t>(GetBig(b.data() + 24, 8));
  f->expires = static_cast<std::int64_t>(GetBig(b.data() + 32, 8));
  f->document_length = GetBig(b.data() + 40, 8);
  std::memcpy(f->document_digest.data(), b.data() + 48, envelope::kDigestSize);
  const char* name = reinterpret_cast<const char*>(b.data() + 112);
  f->info_version.assign(name, strnlen(name, kInfoVersionSize));
  std::memcpy(f->key_id.data(), b.data() + 144, envelope::kKeyIdSize);
  std::memcpy(f->signature.data(), b.data() + 176, envelope::kSignatureSize);
  return true;
}

}  // namespace vesk::info_signature
