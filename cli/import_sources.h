// What `vexa import` reads on this machine: definitions, the sizes of images, and the domains of a libvirt.
#pragma once

#include <json/value.h>

#include <memory>
#include <vector>

#include "cli/import_command.h"
#include "host/base/result.h"
#include "host/hypervisor/domain_list.h"

namespace vexa::cli {

// Threads: one.
class ImportSources {
 public:
  // Errors: those of the manifest and of libvirt.
  static Result<ImportSources> Open(const ImportArguments& arguments);

  const std::vector<ImportSource>& guests() const { return guests_; }

  // The guest as the server's "import" takes it. Errors: kInvalid when the definition cannot be imported, with the
  // sentence that the server has for it, and why an image could not be read; those of files.
  Result<Json::Value> Prepare(const ImportSource& guest) const;

 private:
  ImportSources() = default;

  std::unique_ptr<hypervisor::DomainConnection> connection_;  // used by `guests_`
  std::vector<ImportSource> guests_;
  bool has_files_here_ = true;  // the guests' files, if anywhere, are on this machine
};

}  // namespace vexa::cli
