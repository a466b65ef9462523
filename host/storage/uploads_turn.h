// For host/storage/uploads*.cpp only.
#pragma once

#include <string>

#include "host/storage/uploads.h"

namespace vexa::storage {

// The right to work on an upload, or on the file of its image, for as long as the object lives.
class Uploads::Turn {
 public:
  Turn(Uploads& uploads, const std::string& id) : uploads_(uploads), id_(id) {
    const MutexLock lock(uploads_.mutex_);
    is_taken_ = uploads_.busy_.insert(id_).second;
  }
  ~Turn() {
    if (!is_taken_) return;
    const MutexLock lock(uploads_.mutex_);
    uploads_.busy_.erase(id_);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  // Whether nothing else works on it.
  bool is_taken() const { return is_taken_; }

 private:
  Uploads& uploads_;
  const std::string id_;
  bool is_taken_ = false;
};

}  // namespace vexa::storage
