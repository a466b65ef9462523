// A store in which another writer commits between the reads and the commit of an operation.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "host/store/store.h"

namespace vexa::test {

// Calls `before_commit` just before the next commit, as a concurrent writer.
// Threads: one at a time.
class RacingStore : public store::Store {
 public:
  explicit RacingStore(store::Store& real, std::function<void()> before_commit = nullptr)
      : real_(real), before_commit_(std::move(before_commit)) {}

  void SetBeforeCommit(std::function<void()> before_commit) { before_commit_ = std::move(before_commit); }

  Result<std::unique_ptr<store::Snapshot>> Read() const override { return real_.Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    ++commits_;
    if (const auto before_commit = std::exchange(before_commit_, nullptr)) before_commit();
    return real_.Commit(transaction);
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override {
    return real_.Watch(prefix, from, timeout);
  }
  store::Health health() const override { return real_.health(); }
  int commits() const { return commits_; }

 private:
  store::Store& real_;
  std::function<void()> before_commit_;
  int commits_ = 0;
};

}  // namespace vexa::test
