// Memory that the simulation hands out and the product must give back in the way of its kind.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <mutex>

namespace sim {

// What nobody gave back yet, of all kinds, handles of the local security authority among them.
inline std::atomic<int> openBuffers{0};

// One kind.
class Buffers {
 public:
  void* New(std::size_t bytes) {
    const std::lock_guard guard(mutex_);
    ++openBuffers;
    return sizes_.emplace(std::calloc(1, bytes), bytes).first->first;
  }
  // 0: it was not handed out.
  std::size_t SizeOf(void* memory) {
    const std::lock_guard guard(mutex_);
    const auto found = sizes_.find(memory);
    return found != sizes_.end() ? found->second : 0;
  }
  // False: it was not handed out.
  bool Free(void* memory) {
    const std::lock_guard guard(mutex_);
    const bool ours = sizes_.erase(memory) != 0;
    if (ours) {
      std::free(memory);
      --openBuffers;
    }
    return ours;
  }

 private:
  std::mutex mutex_;
  std::map<void*, std::size_t> sizes_;
};

}  // namespace sim
