#include "verified_stream.h"

#include <errno.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "vesk_internal/envelope.h"

namespace vesk::platform::archive {

Status VerifiedStream::Open(struct archive* reader) {
  hash_.reset(EVP_MD_CTX_new());
  if (!hash_ || EVP_DigestInit_ex(hash_.get(), EVP_sha512(), nullptr) != 1)
    return Fail(VESKARCHIVE_E_INTERNAL, "SHA-512 unavailable");
  buffer_.resize(kChunkSize);
  offset_ = 0;
  end_ = envelope::kHeaderSize + package_.archive_length;
  // The header is hashed as read now, not as remembered.
  envelope::Header header{};
  if (PreadFully(package_.fd.get(), header.data(), header.size(), 0) !=
          static_cast<ssize_t>(header.size()) ||
      EVP_DigestUpdate(hash_.get(), header.data(), header.size()) != 1)
    return Fail(VESKARCHIVE_E_CHANGED, "the package header can no longer be read");
  offset_ = envelope::kHeaderSize;
  if (archive_read_open(reader, this, nullptr, &VerifiedStream::ReadCallback, nullptr) !=
      ARCHIVE_OK)
    return Fail(VESKARCHIVE_E_FORMAT, archive_error_string(reader) != nullptr
                                          ? archive_error_string(reader)
                                          : "unreadable archive");
  return {};
}

ssize_t VerifiedStream::ReadChunk() {
  const size_t want = static_cast<size_t>(std::min<std::uint64_t>(buffer_.size(), end_ - offset_));
  if (want == 0)
    return 0;
  ssize_t n = PreadFully(package_.fd.get(), buffer_.data(), want, static_cast<off_t>(offset_));
  if (n < 0)
    return -1;
  if (static_cast<size_t>(n) < want)
    short_read_ = true;
  if (n > 0 && EVP_DigestUpdate(hash_.get(), buffer_.data(), static_cast<size_t>(n)) != 1)
    return -1;
  offset_ += static_cast<std::uint64_t>(n);
  return n;
}

la_ssize_t VerifiedStream::ReadCallback(struct archive* reader, void* self, const void** buffer) {
  auto* stream = static_cast<VerifiedStream*>(self);
  ssize_t n = stream->ReadChunk();
  if (n < 0) {
    archive_set_error(reader, errno != 0 ? errno : EIO, "reading the package failed");
    return -1;
  }
  *buffer = stream->buffer_.data();
  return n;
}

Status VerifiedStream::Finish() {
  while (offset_ < end_ && !short_read_) {
    ssize_t n = ReadChunk();
    if (n <= 0)
      break;
  }
  envelope::Digest digest{};
  unsigned int len = 0;
  if (short_read_ || offset_ != end_ || EVP_DigestFinal_ex(hash_.get(), digest.data(), &len) != 1 ||
      digest != package_.digest)
    return Fail(VESKARCHIVE_E_CHANGED, "the package bytes differ from those verified");
  return CheckUnchanged(package_);
}

}  // namespace vesk::platform::archive
