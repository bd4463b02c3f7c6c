// A libarchive client reading the archive part of a verified package through its
// held descriptor, hashing every byte so the result can be compared with the
// digest that was verified.
#pragma once

#include <archive.h>

#include <cstdint>
#include <vector>

#include "archive_status.h"
#include "archive_verify.h"
#include "vesk_internal/ossl_ptr.h"

namespace vesk::platform::archive {

class VerifiedStream {
 public:
  explicit VerifiedStream(const VerifiedPackage& package) : package_(package) {}
  VerifiedStream(const VerifiedStream&) = delete;
  VerifiedStream& operator=(const VerifiedStream&) = delete;

  // Hashes the header and opens `reader` on the archive bytes.
  Status Open(struct archive* reader);
  // Reads what the reader left unread and compares the whole hash with the
  // verified digest: VESKARCHIVE_E_CHANGED when they differ.
  Status Finish();

 private:
  static la_ssize_t ReadCallback(struct archive* reader, void* self, const void** buffer);
  ssize_t ReadChunk();

  const VerifiedPackage& package_;
  EvpMdCtxPtr hash_;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t offset_ = 0;
  std::uint64_t end_ = 0;
  bool short_read_ = false;
};

}  // namespace vesk::platform::archive
