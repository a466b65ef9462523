// A store in which somebody else changes something between the reads and the commit of an operation.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "host/store/store.h"

namespace vexa::test {

// Somebody else does `meanwhile` just before the first commit.
// Threads: one at a time.
class InterruptedStore : public store::Store {
 public:
  InterruptedStore(store::Store& real, std::function<void()> meanwhile)
      : real_(real), meanwhile_(std::move(meanwhile)) {}

  Result<std::unique_ptr<store::Snapshot>> Read() const override { return real_.Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    ++commits_;
    if (const auto meanwhile = std::exchange(meanwhile_, nullptr)) meanwhile();
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
  std::function<void()> meanwhile_;
  int commits_ = 0;
};

}  // namespace vexa::test
