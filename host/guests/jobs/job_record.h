// The record of an unfinished job: who started it, its stage, and the intended changes of files. The records of all
// kinds of jobs have the same form, except for what JobKind describes.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/jobs/file_intent.h"
#include "host/store/store.h"

namespace vexa::guests {

// How many bytes of an id or a name a log line has at most.
inline constexpr std::size_t kMaxLoggedIdBytes = 64;

enum class JobStage {
  kChanging,  // the files are being changed, and nothing else; undone after a failure
  kPurging,   // beyond the point of no return: the hidden files are being removed
};

struct JobRecord {
  std::string host_id;
  std::string user;
  std::string request_id;
  std::chrono::system_clock::time_point since;  // whole seconds
  JobStage stage = JobStage::kChanging;
  FileIntent files;
};

struct StoredJob {
  store::Revision revision = 0;
  std::string text;
  std::optional<JobRecord> record;  // not set: it is damaged
};

// What differs between kinds of jobs.
struct JobKind {
  std::string (*key)(const std::string& guest_id);  // of the record
  const char* folder;                               // the first segment of that key
  const char* changing_stage;                       // "stage" in the record for JobStage::kChanging
  // The lists of files in the record; not set: they are damaged.
  std::optional<FileIntent> (*parse_files)(const Json::Value& record, const std::string& guest_id);
  void (*put_files)(const FileIntent& files, Json::Value& record);

  // Parts of log lines and refusals: "<title> of guest[…]: …", "The <noun> of guest[…] …", "Unfinished <plural> …".
  const char* title;
  const char* plural;
  const char* noun;
  const char* busy_sentence;   // "The guest is being …"
  const char* start_unknown;   // when the new record cannot be read; ": <reason>" is appended to this and the next two
  const char* commit_unknown;  // when it is unknown whether the guest's records were committed
  const char* not_undone;      // when the undo failed
};

inline constexpr char kRepositoryId[] = "repository_id";  // a member of records of jobs

std::string SerializeJob(const JobKind& kind, const JobRecord& record);

// Not set: there is no job of this kind. Errors: those of the store.
Result<std::optional<StoredJob>> ReadJob(const store::Snapshot& snapshot, const JobKind& kind,
                                         const std::string& guest_id);

// The refusal 915: the guest is held by the job; who started it and when.
Refusal HeldByJob(const JobKind& kind, const StoredJob& job);

}  // namespace vexa::guests
