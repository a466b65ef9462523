// What `vexa import` reads on this machine: domain XML, the sizes of images, and the domains of a libvirt connection.
#pragma once

#include <json/value.h>

#include <memory>
#include <vector>

#include "cli/import_command.h"
#include "host/base/result.h"
#include "host/hypervisor/domain_list.h"

namespace vexa::cli {

// Threads: one at a time.
class ImportSources {
 public:
  // Errors: those of the manifest and of libvirt.
  static Result<ImportSources> Open(const ImportArguments& arguments);

  const std::vector<ImportSource>& guests() const { return guests_; }
  std::vector<ImportSource>& guests() { return guests_; }

  // The guest as the server's "import" takes it, with ids in its options. kInvalid when the definition cannot be
  // imported, with the sentence that the server would return; also the errors of reading the file.
  Result<Json::Value> Prepare(const ImportSource& guest) const;

 private:
  ImportSources() = default;

  std::unique_ptr<hypervisor::DomainConnection> connection_;  // the `size_of` functions of `guests_` refer to it
  std::vector<ImportSource> guests_;
  bool are_files_local_ = true;  // whether the guests' files are on this machine
  bool are_copied_ = false;      // the server then reads the images
};

}  // namespace vexa::cli
