// vexa image: the ISO images for guests' drives.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct ImageAddOptions {
  std::string name;
  std::string file;     // on the server; a relative path is below the current folder
  std::string id;       // a UUID; empty: a new one
  bool upload = false;  // the file is on this machine, and is sent to the server
  std::string folder;   // with `upload`: one of the server's image folders; empty: the first
};

// Prints the id.
ExitCode RunImageAdd(const GlobalOptions& global, const ImageAddOptions& options);

// A table of id, name, size, whether the file is there, and path; with --json the server's list.
ExitCode RunImageList(const GlobalOptions& global);

struct ImageRenameOptions {
  std::string image;  // an id or a name
  std::string name;
};
ExitCode RunImageRename(const GlobalOptions& global, const ImageRenameOptions& options);

// `image`: an id or a name.
ExitCode RunImageRemove(const GlobalOptions& global, const std::string& image);

}  // namespace vexa::cli
