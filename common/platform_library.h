// The platform's closed libraries, loaded for the length of one request.
#pragma once

// One shared library, opened with all its symbols bound at once, and closed with the object. Nothing stays
// loaded after that, as far as the loader lets a library go, so that an update of the platform takes effect
// with the next request. One thread at a time per object; several may hold the same library.
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
  void* handle_;
};
