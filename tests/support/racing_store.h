// A store in which another writer commits between the reads and the commit of an operation, or somebody reads right
// after the commit.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "host/store/store.h"

namespace vexa::test {

// Calls `before_commit` just before the next commit, as a concurrent writer, and `after_commit`, if any, just after it.
// Threads: one at a time.
class RacingStore : public store::Store {
 public:
  explicit RacingStore(store::Store& real, std::function<void()> before_commit = nullptr,
                       std::function<void()> after_commit = nullptr)
      : real_(real), before_commit_(std::move(before_commit)), after_commit_(std::move(after_commit)) {}

  void SetBeforeCommit(std::function<void()> before_commit) { before_commit_ = std::move(before_commit); }

  Result<std::unique_ptr<store::Snapshot>> Read() const override { return real_.Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    ++commits_;
    if (const auto before_commit = std::exchange(before_commit_, nullptr)) before_commit();
    Result<store::Revision> committed = real_.Commit(transaction);
    if (const auto after_commit = std::exchange(after_commit_, nullptr)) after_commit();
    return committed;
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
  std::function<void()> after_commit_;
  int commits_ = 0;
};

}  // namespace vexa::test
