// Requests that clients number themselves, so that a repeated request gets the first answer instead of a second guest.
//
//   /request/<caller's account id>/<request id>
//       {"method", "digest" (of the parameters), "guest_id", "state": "doing" | "done" | "failed", "since" (Unix
//        seconds), "answer" (done), "code" and "reason" (failed)}
//
// The record is written in the commit that begins the request's job, and changed in the one that ends or undoes it. It
// counts for 24 hours. A caller has at most 256 of them: the oldest finished ones are removed for new ones.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

inline constexpr std::chrono::hours kRequestLifetime{24};
inline constexpr std::size_t kMaxRequestsOfCaller = 256;

// A request with an id of the caller's.
struct NumberedRequest {
  std::string owner;   // the caller's account id
  std::string id;      // see IsRequestId
  std::string digest;  // equal for equal parameters
};

// 1 to 64 letters, digits, ".", "_" and "-".
bool IsRequestId(const std::string& text);

enum class RequestState { kDoing, kDone, kFailed };

struct RequestRecord {
  std::string method;
  std::string digest;
  std::string guest_id;
  RequestState state = RequestState::kDoing;
  std::chrono::system_clock::time_point since;  // whole seconds
  Json::Value answer;                           // kDone
  Refusal refusal;                              // kFailed
};

struct StoredRequest {
  store::Revision revision = 0;
  std::optional<RequestRecord> record;  // not set: absent, damaged or too old
};

std::string RequestKey(const std::string& owner, const std::string& id);
std::string SerializeRequest(const RequestRecord& record);

// Errors: those of the store.
Result<StoredRequest> ReadRequest(const store::Snapshot& snapshot, const std::string& owner, const std::string& id,
                                  std::chrono::system_clock::time_point now);

// The outcome of a request that was made before: its answer, or its refusal; a refusal too when its parameters were
// others. Not set: there was no such request, or it is still being done.
using FirstOutcome = std::optional<Result<Json::Value, Refusal>>;
FirstOutcome OutcomeOf(const NumberedRequest& request, const StoredRequest& stored);

// Adds the write of a new record, with a compare of `stored`, and removes old records of the caller. False, and adds
// nothing: the caller has too many requests in progress. Errors: those of the store.
Result<bool> AddNewRequest(const store::Snapshot& snapshot, const NumberedRequest& request, const StoredRequest& stored,
                           const RequestRecord& record, store::Transaction& transaction);

// Replaces the answer of a request that is done. A failure is logged: a repeated request then gets the previous answer.
void ReplaceAnswer(store::Store& store, const NumberedRequest& request, const Json::Value& answer);

}  // namespace vexa::guests
