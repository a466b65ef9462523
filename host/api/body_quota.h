// Bounds the bytes of request bodies that are in memory, by caller.
//
// A body counts from its header on, because a client decides how slowly it arrives, until its call has been answered:
// what is made of a body takes memory as well.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "host/base/fair_queue.h"

namespace vexa::api {

inline constexpr std::size_t kBodyBytesPerCaller = std::size_t{8} << 20;
inline constexpr std::size_t kBodyBytesPerHost = std::size_t{32} << 20;
// Bodies up to this size are not counted: one large call would refuse all others of its caller, and any other call a
// large one. The lanes bound how many there are.
inline constexpr std::size_t kSmallBodyBytes = std::size_t{16} << 10;

// Threads: any, at the same time. Shares may outlive it.
class BodyQuota {
  struct Counts;

 public:
  // The bytes of one body, given back when it is destroyed.
  class Share {
   public:
    ~Share();
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    // Changes the number of bytes, to those of the body that came, or of what was made of it. False, and no change,
    // when the quota has no room for more; there is always room for less.
    [[nodiscard]] bool Resize(std::size_t bytes);

   private:
    friend class BodyQuota;
    Share(std::shared_ptr<Counts> counts, const JobOwner& owner) : counts_(std::move(counts)), owner_(owner) {}
    const std::shared_ptr<Counts> counts_;
    const JobOwner owner_;
    std::size_t bytes_ = 0;
  };

  BodyQuota();

  // Null when the owner, or all owners of the same host together, would have too many bytes. There is room for one body
  // of any size when they have no other, and always for a small one.
  std::unique_ptr<Share> Take(const JobOwner& owner, std::size_t bytes);

 private:
  std::shared_ptr<Counts> counts_;
};

}  // namespace vexa::api
