// The scripted platform: users, groups and their records, lists and hashes of the base library.
#include "webapi/platform/base.h"

#include <string>
#include <vector>

#include "tests/support/scripted_platform.h"

using Base = vexa::test::ScriptedPlatform::Base;
using vexa::test::Platform;

struct HLIBCSzList {
  std::vector<std::string> texts;
};
struct HLIBCSzHash {
  std::vector<std::string> keys;
};

PSZLIST HLIBCSzListAlloc(int capacity) {
  Platform().list_capacity = capacity;
  if (Platform().base == Base::kNoList) return nullptr;
  ++Platform().lists_made;
  return new HLIBCSzList;
}

void HLIBCSzListFree(PSZLIST list) {
  if (list) ++Platform().lists_freed;
  delete list;
}

int HLIBCSzListCount(PSZLIST list) { return static_cast<int>(list->texts.size()); }

const char* HLIBCSzListGet(PSZLIST list, int index) { return list->texts.at(static_cast<std::size_t>(index)).c_str(); }

PSZHASH HLIBGroupInfoHashGet(const char* user, int first, int second) {
  if (first != 0 || second != 0) return nullptr;
  if (Platform().base == Base::kNoHash) return nullptr;
  ++Platform().hashes_made;
  return new HLIBCSzHash{Platform().groups[user]};
}

int HLIBCSzHashEnumKey(PSZHASH hash, PSZLIST list) {
  if (Platform().base == Base::kNoKeys) return -1;
  list->texts = hash->keys;
  return static_cast<int>(hash->keys.size());
}

void HLIBCSzHashFree(PSZHASH hash) {
  if (hash) ++Platform().hashes_freed;
  delete hash;
}

int VEXAUserGetUGID(const char* name, uid_t* uid, gid_t* gid) {
  const auto user = Platform().users.find(name);
  if (user == Platform().users.end()) return -1;
  *uid = user->second.first;
  *gid = user->second.second;
  return 0;
}

unsigned int HLIBCErrGet() { return 0x2A; }
const char* HLIBCErrorGetFile() { return "base.c"; }
int HLIBCErrorGetLine() { return 77; }

namespace VexaCCC {

std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id) {
  const std::string place = std::to_string(auth_type) + "/" + kind + "/" + std::to_string(numeric_id);
  Platform().requested_identifiers.push_back(place);
  const auto identifier = Platform().identifiers.find(place);
  return identifier == Platform().identifiers.end() ? "" : identifier->second;
}

int gaUserSet(const std::string& identifier, const std::string& empty, const std::vector<Rule>& rules) {
  Platform().grants.push_back({identifier, empty, rules});
  return Platform().grant_result;
}

}  // namespace VexaCCC
