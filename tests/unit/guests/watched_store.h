// A store that counts the snapshots that are open, to show that nothing slow is called under one, nor inside a commit.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::test {

// Threads: one at a time.
class WatchedStore : public store::Store {
 public:
  explicit WatchedStore(std::shared_ptr<store::Store> real) : real_(std::move(real)) {}

  // For the hooks of what is slow: fails the test while a snapshot is open, or while commits that try again wait. Then
  // an unrelated guest changes, as it may at any time.
  void ExpectQuiet(std::string_view where) {
    ++asked_;
    EXPECT_EQ(open_, 0) << where << ": a snapshot is open";
    bool is_free = false;
    std::thread([&] {
      is_free = records::RetryMutex().TryLock();
      if (is_free) records::RetryMutex().Unlock();
    }).join();
    EXPECT_TRUE(is_free) << where << ": others' commits wait";
    EXPECT_TRUE(real_->Commit({{}, {{"/somebody", "1"}}}));
  }
  int asked() const { return asked_; }

  // Each of the next `times` commits is a conflict, and calls `meanwhile` first, as a concurrent writer.
  void Conflict(int times, std::function<void()> meanwhile = nullptr) {
    conflicts_ = times;
    meanwhile_ = std::move(meanwhile);
  }

  Result<std::unique_ptr<store::Snapshot>> Read() const override {
    auto snapshot = real_->Read();
    if (!snapshot) return snapshot.error();
    return std::unique_ptr<store::Snapshot>(std::make_unique<Counted>(std::move(*snapshot), open_));
  }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    if (conflicts_ > 0) {
      --conflicts_;
      if (meanwhile_) meanwhile_();
      return Error(ErrorCode::kConflict, "somebody was first");
    }
    return real_->Commit(transaction);
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override {
    return real_->Watch(prefix, from, timeout);
  }
  store::Health health() const override { return real_->health(); }

 private:
  class Counted : public store::Snapshot {
   public:
    Counted(std::unique_ptr<store::Snapshot> real, int& open) : real_(std::move(real)), open_(open) { ++open_; }
    ~Counted() override { --open_; }
    store::Revision revision() const override { return real_->revision(); }
    Result<std::optional<store::ValueView>> Get(std::string_view key) const override { return real_->Get(key); }
    Result<std::vector<std::string>> Children(std::string_view prefix) const override {
      return real_->Children(prefix);
    }
    Status Scan(std::string_view prefix,
                const std::function<bool(std::string_view key, const store::ValueView& value)>& visit) const override {
      return real_->Scan(prefix, visit);
    }

   private:
    const std::unique_ptr<store::Snapshot> real_;
    int& open_;
  };

  const std::shared_ptr<store::Store> real_;
  mutable int open_ = 0;
  int conflicts_ = 0;
  std::function<void()> meanwhile_;
  int asked_ = 0;
};

}  // namespace vexa::test
