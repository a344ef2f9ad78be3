// The platform's closed libraries, loaded for the duration of one request.
#pragma once

#include "common/process.h"

// One shared library, opened with all symbols bound at once. The destructor closes it, and the loader unloads it if it
// can, so that an update of the platform takes effect with the next request. Libraries start programs themselves and
// may rely on small descriptor numbers: while one is open, its thread has the signal mask, and the process the
// descriptor limit, that the daemon was started with. One thread per object; several objects may open the same library.
class PlatformLibrary {
 public:
  // `path` is absolute. A library that cannot be opened leaves the object empty.
  explicit PlatformLibrary(const char* path);
  PlatformLibrary(const PlatformLibrary&) = delete;
  PlatformLibrary& operator=(const PlatformLibrary&) = delete;
  ~PlatformLibrary();

  // The function `name`; null if the library is not open or lacks it. Functions and data of the library are invalid
  // after it is closed; memory that it has allocated stays valid.
  template <typename Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(symbol(name));
  }

 private:
  void* symbol(const char* name) const;
  const AsStarted state_;  // constructed before the library is opened, destroyed after it is closed
  void* handle_;
};
