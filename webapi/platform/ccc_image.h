// Cluster control: the ISO images for the drives of guests.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// Whether `text` is the id of an image of the cluster, or the keyword for an empty drive.
bool GuestImageIsValidID(const std::string& text);

// Whether `text` is the path of an image in a shared folder that is currently accessible to this host.
bool GuestImageIsValidDsPath(const std::string& text);

// Whether `text` has the form of such a path. Does not check that the file exists.
bool GuestImageIsDsPath(const std::string& text);

}  // namespace VexaCCC

#pragma GCC visibility pop
