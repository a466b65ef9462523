// Names of objects, which are shown in place of their ids.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "cli/client_options.h"
#include "cli/objects.h"

namespace vexa::cli {

// Asks the server for the objects of a kind when the first of their ids is looked up. Threads: one.
class ObjectNames {
 public:
  explicit ObjectNames(const GlobalOptions& global) : global_(global) {}

  // The object's name; its id with --ids, without a name, and when the objects cannot be listed. "" for "".
  std::string Of(const ObjectKind& kind, const std::string& id);

 private:
  const GlobalOptions& global_;
  std::map<std::string, std::map<std::string, std::string>> names_;  // by the kind, and by id
};

}  // namespace vexa::cli
