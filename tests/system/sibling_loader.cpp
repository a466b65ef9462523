// Loads a module as a host does: the program provides the platform. usage: sibling_loader MODULE PREFIX. Exits with 0
// when the module's calls are answered by the library below PREFIX and no other.
#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The loaded library's path.
int FindLibrary(dl_phdr_info* info, std::size_t, void* found) {
  if (std::strstr(info->dlpi_name, "libvexavirtualization.so")) *static_cast<std::string*>(found) = info->dlpi_name;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  void* const module = ::dlopen(argv[1], RTLD_NOW);
  if (module == nullptr) {
    std::fprintf(stderr, "%s\n", ::dlerror());
    return 1;
  }
  const auto ask = reinterpret_cast<const char* (*)()>(::dlsym(module, "AskLibrary"));
  const std::string answer = ask ? ask() : "the module has no such function";
  std::string library;
  ::dl_iterate_phdr(FindLibrary, &library);
  std::printf("%s\n%s\n", library.c_str(), answer.c_str());
  return answer == "host_offline web-1 administrator 0" && library.starts_with(std::string(argv[2]) + "/") ? 0 : 1;
}
