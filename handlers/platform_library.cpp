#include "handlers/platform_library.h"

#include <dlfcn.h>

#include <utility>

PlatformLibrary::PlatformLibrary(const char* path) : handle_(dlopen(path, RTLD_NOW)) {}

void PlatformLibrary::close() {
  if (handle_ != nullptr) dlclose(std::exchange(handle_, nullptr));
}

void* PlatformLibrary::symbol(const char* name) const {
  return handle_ != nullptr ? dlsym(handle_, name) : nullptr;
}
