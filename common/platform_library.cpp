#include "common/platform_library.h"

#include <dlfcn.h>

PlatformLibrary::PlatformLibrary(const char* path) : handle_(dlopen(path, RTLD_NOW)) {}

PlatformLibrary::~PlatformLibrary() {
  if (handle_ != nullptr) dlclose(handle_);
}

void* PlatformLibrary::symbol(const char* name) const {
  return handle_ != nullptr ? dlsym(handle_, name) : nullptr;
}
