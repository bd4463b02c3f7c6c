#include "digest_pipe.h"

#include <system_error>

namespace vesk::platform::archive {

DigestPipe::DigestPipe(EVP_MD_CTX* ctx) : ctx_(ctx) {
  try {
    worker_ = std::thread([this] { Run(); });
  } catch (const std::system_error&) {
    // No thread: Add hashes inline, and the waits return at once.
  }
}

DigestPipe::~DigestPipe() {
  if (!worker_.joinable())
    return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  worker_.join();
}

void DigestPipe::Add(const std::uint8_t* data, size_t size) {
  if (!worker_.joinable()) {
    if (EVP_DigestUpdate(ctx_, data, size) != 1)
      failed_ = true;
    ++added_;
    ++hashed_;
    return;
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    // The queue has a place for every slot, so this wait only guards misuse.
    changed_.wait(lock, [this] { return added_ - hashed_ < kSlots; });
    queue_[added_ % kSlots] = Chunk{data, size};
    ++added_;
  }
  changed_.notify_all();
}

void DigestPipe::WaitSlot(std::uint64_t chunk) {
  if (chunk < kSlots)
    return;
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return hashed_ > chunk - kSlots; });
}

bool DigestPipe::Drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return hashed_ == added_; });
  return !failed_;
}

void DigestPipe::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stop_ || hashed_ < added_; });
    if (stop_)
      return;  // abandoned: what is left is never asked for
    const Chunk chunk = queue_[hashed_ % kSlots];
    lock.unlock();
    const bool ok = EVP_DigestUpdate(ctx_, chunk.data, chunk.size) == 1;
    lock.lock();
    failed_ = failed_ || !ok;
    ++hashed_;
    changed_.notify_all();
  }
}

}  // namespace vesk::platform::archive
