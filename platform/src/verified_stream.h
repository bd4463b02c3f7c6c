// A libarchive client reading the archive part of a verified package through its
// held descriptor, hashing every byte so the result can be compared with the
// digest that was verified. The hashing runs on a second thread (DigestPipe)
// while libarchive decompresses and the pass writes or skips the entries.
#pragma once

#include <archive.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "archive_status.h"
#include "archive_verify.h"
#include "digest_pipe.h"
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
  // Reads the next chunk into the ring; the count read (0 at the end, -1 on
  // failure), with `*data` pointing at it.
  ssize_t ReadChunk(const std::uint8_t** data);

  const VerifiedPackage& package_;
  EvpMdCtxPtr hash_;
  // DigestPipe::kSlots chunks: libarchive holds the newest, the hashing
  // thread the older ones until they are hashed.
  std::vector<std::uint8_t> ring_;
  std::unique_ptr<DigestPipe> pipe_;  // after hash_ and ring_, which it uses
  std::uint64_t chunks_ = 0;
  std::uint64_t offset_ = 0;
  std::uint64_t end_ = 0;
  bool short_read_ = false;
};

}  // namespace vesk::platform::archive
