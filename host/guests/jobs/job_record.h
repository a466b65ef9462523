// The record of a job that is not finished: who began it, how far it has come, and what it is about to do with files.
// All kinds of jobs have such records; a row of JobKind says what is different about one.
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

// How many bytes of an id or a name are shown in a log line.
inline constexpr std::size_t kShownId = 64;

enum class JobStage {
  kDoing,    // the files are being changed, and nothing else; undone after a failure
  kPurging,  // beyond the point of no return: the hidden files are being removed
};

struct JobRecord {
  std::string host_id;
  std::string user;
  std::string request_id;
  std::chrono::system_clock::time_point since;  // whole seconds
  JobStage stage = JobStage::kDoing;
  FileIntent files;
};

struct StoredJob {
  store::Revision revision = 0;
  std::string text;
  std::optional<JobRecord> record;  // not set: it is damaged
};

struct JobKind {
  std::string (*key)(const std::string& guest_id);  // of the record
  const char* folder;                               // the first segment of that key
  const char* doing;                                // the word for JobStage::kDoing in the record
  // The lists of files in the record; not set: they are damaged.
  std::optional<FileIntent> (*parse_files)(const Json::Value& record, const std::string& guest_id);
  void (*put_files)(const FileIntent& files, Json::Value& record);

  // The words of its sentences: "<title> of guest[…]: …", "The <word> of guest[…] …", "<titles> that were begun …".
  const char* title;
  const char* titles;
  const char* word;
  const char* being;          // that the guest is held by such a job
  const char* changed;        // that the record that was just committed is another one
  const char* begun_unknown;  // what happens when that record cannot be read; a reason follows
  const char* done_unknown;   // the same for the commit of the guest's records
  const char* not_undone;     // that the undo failed; a reason follows
  const char* not_ended;      // that the record could not be removed at the end; a reason follows
};

inline constexpr char kRepositoryId[] = "repository_id";  // a member of records of jobs

std::string JobText(const JobKind& kind, const JobRecord& record);

// Not set: there is no job of this kind. Errors: those of the store.
Result<std::optional<StoredJob>> ReadJob(const store::Snapshot& snapshot, const JobKind& kind,
                                         const std::string& guest_id);

// Reports that the job holds the guest, by whom and since when: 915.
Refusal HeldByJob(const JobKind& kind, const StoredJob& job);

}  // namespace vexa::guests
