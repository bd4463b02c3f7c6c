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
  ring_.resize(DigestPipe::kSlots * kChunkSize);
  offset_ = 0;
  end_ = envelope::kHeaderSize + package_.archive_length;
  // The header is hashed as read now, not as remembered.
  envelope::Header header{};
  if (PreadFully(package_.fd.get(), header.data(), header.size(), 0) !=
          static_cast<ssize_t>(header.size()) ||
      EVP_DigestUpdate(hash_.get(), header.data(), header.size()) != 1)
    return Fail(VESKARCHIVE_E_CHANGED, "the package header can no longer be read");
  offset_ = envelope::kHeaderSize;
  pipe_ = std::make_unique<DigestPipe>(hash_.get());
  if (archive_read_open(reader, this, nullptr, &VerifiedStream::ReadCallback, nullptr) !=
      ARCHIVE_OK)
    return Fail(VESKARCHIVE_E_FORMAT, archive_error_string(reader) != nullptr
                                          ? archive_error_string(reader)
                                          : "unreadable archive");
  return {};
}

ssize_t VerifiedStream::ReadChunk(const std::uint8_t** data) {
  const size_t want = static_cast<size_t>(std::min<std::uint64_t>(kChunkSize, end_ - offset_));
  *data = ring_.data();
  if (!pipe_)
    return -1;  // not opened
  if (want == 0)
    return 0;
  // The slot's previous chunk must have been hashed before it is overwritten;
  // libarchive is done with it, as it only ever holds the newest chunk.
  pipe_->WaitSlot(chunks_);
  std::uint8_t* slot = ring_.data() + (chunks_ % DigestPipe::kSlots) * kChunkSize;
  ssize_t n = PreadFully(package_.fd.get(), slot, want, static_cast<off_t>(offset_));
  if (n < 0)
    return -1;
  if (static_cast<size_t>(n) < want)
    short_read_ = true;
  if (n > 0) {
    pipe_->Add(slot, static_cast<size_t>(n));
    ++chunks_;
  }
  offset_ += static_cast<std::uint64_t>(n);
  *data = slot;
  return n;
}

la_ssize_t VerifiedStream::ReadCallback(struct archive* reader, void* self, const void** buffer) {
  auto* stream = static_cast<VerifiedStream*>(self);
  const std::uint8_t* data = nullptr;
  ssize_t n = stream->ReadChunk(&data);
  if (n < 0) {
    archive_set_error(reader, errno != 0 ? errno : EIO, "reading the package failed");
    return -1;
  }
  *buffer = data;
  return n;
}

Status VerifiedStream::Finish() {
  const std::uint8_t* data = nullptr;
  while (offset_ < end_ && !short_read_) {
    ssize_t n = ReadChunk(&data);
    if (n <= 0)
      break;
  }
  envelope::Digest digest{};
  unsigned int len = 0;
  const bool hashed = pipe_ && pipe_->Drain();
  if (!hashed || short_read_ || offset_ != end_ ||
      EVP_DigestFinal_ex(hash_.get(), digest.data(), &len) != 1 || digest != package_.digest)
    return Fail(VESKARCHIVE_E_CHANGED, "the package bytes differ from those verified");
  return CheckUnchanged(package_);
}

}  // namespace vesk::platform::archive
