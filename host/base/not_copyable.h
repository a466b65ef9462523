// The base of classes whose objects cannot be copied.
#pragma once

namespace vexa {

class NotCopyable {
 public:
  NotCopyable(const NotCopyable&) = delete;
  NotCopyable& operator=(const NotCopyable&) = delete;

 protected:
  NotCopyable() = default;
  ~NotCopyable() = default;
};

}  // namespace vexa
