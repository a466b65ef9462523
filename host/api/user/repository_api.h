// VEXA.Virtualization.Repository: where guests' disks are.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/storage/image_folder.h"
#include "host/store/store.h"

namespace vexa::api {

// "list", "get", "add", "rename", "limits", "remove", "accept".
// Where this host has repositories. Without folders none are made and none are examined.
struct RepositoryPlaces {
  std::string host_id;
  std::vector<std::string> image_roots;
  storage::QemuAccess access;
};

std::vector<ApiRow> RepositoryRows(const std::shared_ptr<store::Store>& store, RepositoryPlaces places = {});

}  // namespace vexa::api
