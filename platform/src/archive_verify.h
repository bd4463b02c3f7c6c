// First pass over a package: the envelope is checked field by field and the
// signature verified over a streaming SHA-512 of the header and archive.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "archive_status.h"
#include "vesk_internal/envelope.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::platform::archive {

// Read size of every streaming pass. The verification reads into one buffer of
// this size, each extraction pass into a ring of DigestPipe::kSlots of them.
inline constexpr size_t kChunkSize = 64 * 1024;

// A package whose envelope and signature have been verified, still open. The
// extraction reads this descriptor again, never the path, so the file cannot be
// swapped for another between verification and extraction.
struct VerifiedPackage {
  UniqueFd fd;
  struct stat identity {};  // fstat at verification
  std::uint64_t archive_length = 0;
  envelope::Digest digest{};  // SHA-512 of bytes [0, 16 + archive_length)
  bool bound = false;         // format 2: `binding` holds the signed binding
  std::string binding;
};

Status VerifyPackage(const std::string& path, int key_type, VerifiedPackage* package);

// VESKARCHIVE_E_BAD_SIGNATURE unless `signature` is the Ed25519 signature of
// `message` by `key`.
Status VerifySignature(EVP_PKEY* key, const envelope::Signature& signature,
                       const std::uint8_t* message, size_t size);

// VESKARCHIVE_E_CHANGED when the held file's identity, size or modification time
// differ from those seen at verification (someone wrote to it in place).
Status CheckUnchanged(const VerifiedPackage& package);

// pread until `size` bytes, end of file or an error; the count read, or -1.
ssize_t PreadFully(int fd, void* buf, size_t size, off_t offset);

}  // namespace vesk::platform::archive
