// One object per type, folder and process, shared by all that open the folder.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <typeindex>
#include <utility>

#include "host/base/result.h"

namespace vexa::store {

// Identifies a folder independently of the path that led to it: st_dev and st_ino.
using FolderId = std::pair<dev_t, ino_t>;

// Errors: kDenied, kInternal (there is no such folder).
Result<FolderId> IdOfFolder(const std::string& directory);

namespace detail {
using AnyObject = std::shared_ptr<void>;
Result<AnyObject> OpenOnce(const FolderId& folder, std::type_index type,
                           const std::function<Result<AnyObject>()>& open);
}  // namespace detail

// The object of type T that is open for `folder`, or the result of `open`. Waits while another thread is opening it,
// and while the last owner of an earlier one is still closing it. Errors, and exceptions: those of `open`. Threads:
// any.
template <class T>
Result<std::shared_ptr<T>> OpenOnce(const FolderId& folder, const std::function<Result<std::unique_ptr<T>>()>& open) {
  auto opened = detail::OpenOnce(folder, typeid(T), [&open]() -> Result<detail::AnyObject> {
    Result<std::unique_ptr<T>> made = open();
    if (!made.ok()) return made.error();
    return detail::AnyObject(std::shared_ptr<T>(std::move(made.value())));
  });
  if (!opened.ok()) return opened.error();
  return std::static_pointer_cast<T>(std::move(opened.value()));
}

}  // namespace vexa::store
