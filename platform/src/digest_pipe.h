// A digest computed on a second thread while the caller goes on with the data:
// the extraction passes hash what they read while libarchive decompresses it.
//
// The caller owns a ring of kSlots buffers. It fills slot `n % kSlots` with the
// n-th chunk, calls Add(n's data), and may overwrite that slot again only after
// WaitSlot(n + kSlots) returned, i.e. once chunk n has been hashed. The hash is
// the same as one EVP_DigestUpdate per chunk in order. When no thread can be
// started, Add hashes in the caller's thread.
#pragma once

#include <openssl/evp.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

namespace vesk::platform::archive {

class DigestPipe {
 public:
  static constexpr size_t kSlots = 8;

  // `ctx` is initialised by the caller and outlives the pipe.
  explicit DigestPipe(EVP_MD_CTX* ctx);
  ~DigestPipe();
  DigestPipe(const DigestPipe&) = delete;
  DigestPipe& operator=(const DigestPipe&) = delete;

  // Queues the next chunk; `data` stays untouched until it has been hashed.
  void Add(const std::uint8_t* data, size_t size);
  // Waits until the chunk that used slot `chunk % kSlots` before chunk
  // `chunk` (chunk - kSlots) has been hashed.
  void WaitSlot(std::uint64_t chunk);
  // Waits until every chunk has been hashed; false when an update failed.
  bool Drain();

 private:
  struct Chunk {
    const std::uint8_t* data = nullptr;
    size_t size = 0;
  };
  void Run();

  EVP_MD_CTX* ctx_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Chunk queue_[kSlots];
  std::uint64_t added_ = 0;   // chunks given to Add
  std::uint64_t hashed_ = 0;  // chunks hashed
  bool failed_ = false;
  bool stop_ = false;
  std::thread worker_;  // last: started when everything above is ready
};

}  // namespace vesk::platform::archive
