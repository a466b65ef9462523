// An independent model of what edits must do, without the service's code: the records, files and refusals that follow
// from an edit. Tests compare the host with it.
#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vexa::test {

struct ModelPart {
  std::string id;      // "": the host has not named it yet
  Json::Value record;  // of an interface that gets a new address, without "mac_address"
};

struct ModelGuest {
  std::string id;
  Json::Value record{Json::objectValue};  // without the lists of its parts
  std::vector<ModelPart> disks;
  std::vector<ModelPart> nics;
  bool is_running = false;
  Json::Value started;  // of one that runs: the record as it was then
  bool is_suspended = false;
  bool is_whole = true;                 // else one of its parts has no record
  bool is_edited = false;               // by another host
  bool is_deleted = false;              // the same
  std::set<std::string> missing_files;  // ids of its disks
};

// The records as they are stored, with the lists of the parts.
Json::Value StoredRecord(const ModelGuest& guest);
// What a machine is made of, one line each, by the records.
std::string MachineOf(const Json::Value& guest, const std::vector<Json::Value>& disks,
                      const std::vector<Json::Value>& nics);
std::string MachineOf(const ModelGuest& guest);

struct ModelOutcome {
  std::set<int> codes;  // those that the edit may be refused with; none: it is done
  ModelGuest after;
  std::set<std::string> taken_macs;  // those of the edit's that an interface gets
  std::size_t new_macs = 0;          // how many are made up
};

class EditModel {
 public:
  std::string host_id;
  std::map<std::string, std::string> repository_hosts;  // by the repository's id
  std::map<std::string, std::string> repository_folders;
  std::set<std::string> blocked_repositories;   // where no file can be made
  std::map<std::string, std::string> networks;  // names by id
  std::set<std::string> networks_with_record;   // the others are known from their interfaces
  std::map<std::string, std::string> images;    // paths by id
  std::map<std::string, ModelGuest> guests;
  std::int64_t cpus = 0;  // of the host
  std::int64_t most_vcpus = 0;
  std::int64_t memory_mib = 0;

  // `edit` must be of the right types and ranges: invalid parameters are tested elsewhere.
  ModelOutcome Predict(const std::string& guest_id, const Json::Value& edit) const;
  // The same of starting and of powering off.
  std::set<int> PredictPower(const ModelGuest& guest, bool is_on) const;
  // Whether the guest could have that many processors of its own now.
  bool HasProcessors(const ModelGuest& guest, std::int64_t pins) const;
  // Names what is new, by the records of the host.
  static void Learn(ModelGuest& guest, const Json::Value& stored);

  // The image of each disk, with its size in bytes.
  std::map<std::string, std::int64_t> Files() const;
};

}  // namespace vexa::test

// Tests of the host's own code are in its namespace.
namespace vexa::guests {

using test::EditModel;
using test::ModelGuest;
using test::ModelOutcome;
using test::ModelPart;

}  // namespace vexa::guests
