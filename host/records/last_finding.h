// What the last read of a record that failed has found, for the reason of the request that needs the record.
#pragma once

#include <string>

#include "host/base/not_copyable.h"
#include "host/base/result.h"

namespace vexa::records {

struct Finding {
  std::string sentence;          // "" while no read has failed
  bool is_for_everyone = false;  // otherwise it names files or other things of a host
};

// While a scope lives, it has the last finding of its thread. Scopes may nest; the innermost one collects.
// Threads: one.
class FindingScope : private NotCopyable {
 public:
  FindingScope();
  ~FindingScope();

  const Finding& last() const { return last_; }

  // The object has no record, or the record lacks `member`.
  static void AddMissing(const std::string& category, const std::string& id, const std::string& member);
  // The records of `what`, "the guest 'a'", cannot be read.
  static void AddUnreadable(const std::string& what, const Error& error);
  static void Add(Finding finding);

 private:
  Finding last_;
  FindingScope* const outer_;
};

// "the guest '6f1c…'", with the word that users know for the category.
std::string ObjectForUsers(const std::string& category, const std::string& id);

}  // namespace vexa::records
