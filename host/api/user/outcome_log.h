// Writes the outcome of a user's call to the cluster log.
#pragma once

#include <string>

#include "host/api/api_table.h"
#include "host/base/refusal.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::api {

enum class Outcome { kDone, kFailed };

inline Outcome OutcomeOf(const Result<void, Refusal>& done) { return done.ok() ? Outcome::kDone : Outcome::kFailed; }

// Writes the sentence for the outcome, in the caller's name.
inline void LogOutcome(const Call& call, Outcome outcome, const std::string& done, const std::string& failed) {
  const bool is_done = outcome == Outcome::kDone;
  std::string sentence = is_done ? done : failed;
  std::erase(sentence, '\0');  // from a record that another program wrote; it would cut the line short
  VexaCCC::ClusterLogAdd(call.request->GetLoginUserName(),
                         is_done ? VexaCCC::CLOG_PRIORITY_SUCCESS : VexaCCC::CLOG_PRIORITY_FAILURE, "%s",
                         sentence.c_str());
}

}  // namespace vexa::api
