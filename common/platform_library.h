// The platform's closed libraries, loaded for the length of one request.
#pragma once

#include "common/process.h"

// One shared library, opened with all its symbols bound at once, and closed with the object. Nothing stays
// loaded after that, as far as the loader lets a library go, so that an update of the platform takes effect
// with the next request. Libraries start programs by themselves, and may count on small descriptor numbers: as long
// as one is open, its thread and the limit are as the daemon was started. One thread per object; several may hold
// the same library.
class PlatformLibrary {
 public:
  // `path` is absolute. A library that cannot be opened leaves the object empty.
  explicit PlatformLibrary(const char* path);
  PlatformLibrary(const PlatformLibrary&) = delete;
  PlatformLibrary& operator=(const PlatformLibrary&) = delete;
  ~PlatformLibrary();

  // The function called `name`, to be called as a Function; null when the library is not open or lacks it.
  // Not good after the library is closed, as everything that lies in the library; what it has allocated
  // stays.
  template <typename Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(symbol(name));
  }

 private:
  void* symbol(const char* name) const;
  const AsStarted state_;  // before the library is opened and until it is closed
  void* handle_;
};
