// Cluster control: the images that a guest's drives can hold.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// Whether `text` is the id of an image of the cluster, or the word for an empty drive.
bool GuestImageIsValidID(const std::string& text);

// Whether `text` is the path of an image in a shared folder that this host can use now.
bool GuestImageIsValidDsPath(const std::string& text);

// Whether `text` has the form of such a path. It does not check a file.
bool GuestImageIsDsPath(const std::string& text);

}  // namespace VexaCCC

#pragma GCC visibility pop
