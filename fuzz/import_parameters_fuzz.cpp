// The parameters of an import: accepted ones have the types and ranges that an import relies on, and every refusal is
// one sentence.
#include <string>

#include "fuzz/check.h"
#include "host/api/import_parameters.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/records/named_record.h"
#include "json/readers.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::NormalizeUuid;
using vexa::fuzz::Check;
using vexa::guests::ImportRequest;

void CheckRefusal(const vexa::Error& error) {
  Check(error.code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
  Check(vexa::IsValidUtf8(error.ToString()), "a refusal is text");
  Check(error.ToString().find_first_of("\n\x1b") == std::string::npos, "a refusal is one line");
  Check(error.ToString().size() < 1024, "a refusal is short");
}

void CheckRequest(const ImportRequest& request) {
  Check(!request.xml.empty(), "a guest has a definition");
  for (const std::string& id : {request.expected_id, request.repository_id, request.host_id}) {
    Check(id.empty() || NormalizeUuid(id) == id, "an id is a UUID");
  }
  for (const auto& [name, id] : request.networks)
    Check(!name.empty() && NormalizeUuid(id) == id, "a network has an id");
  for (const auto& [name, size_mib] : request.disk_sizes_mib) {
    Check(!name.empty() && size_mib >= 1 && size_mib <= vexa::domain_xml::kMaxDiskMib, "a disk has an allowed size");
  }
  for (const auto& [path, size] : request.image_sizes) Check(!path.empty(), "an image has a path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parameters = vexa::ParseJson(vexa::fuzz::Text(data, size));
  if (!parameters) return 0;
  const auto requests = vexa::api::ReadImportRequests(json::Member(*parameters, "guests"));
  if (requests) {
    Check(!requests->empty() && requests->size() <= vexa::api::kMaxImportedGuests,
          "a call has at least one guest and at most the allowed number");
    for (const ImportRequest& request : *requests) CheckRequest(request);
  } else {
    CheckRefusal(requests.error());
  }
  const auto planned = vexa::api::ReadPlannedGuests(json::Member(*parameters, "planned"));
  if (!planned) {
    CheckRefusal(planned.error());
    return 0;
  }
  for (const auto& [id, name] : *planned) {
    Check(NormalizeUuid(id) == id, "a planned guest has an id");
    Check(vexa::records::IsRecordName(name), "a planned guest has a name");
  }
  return 0;
}
