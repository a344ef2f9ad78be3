# project() defines the version; libraries, packages, ks.pc and ksConfigVersion.cmake get it from there. The files below
# state it themselves, so that they are usable without a build, and must agree. `ksctl --version` prints the header's.
function(require_line file line)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${file} found REGEX "^${line}" LIMIT_COUNT 1)
  if(NOT found)
    message(FATAL_ERROR "The version is ${PROJECT_VERSION}, but no line of ${file} begins with: ${line}")
  endif()
endfunction()

require_line(service/ks.h "#define KS_VERSION \"${PROJECT_VERSION}\"")
require_line(NEWS.md "## ${PROJECT_VERSION}")
require_line(packaging/debian/changelog "vistalprod \\(${PROJECT_VERSION}\\)")
file(GLOB pages RELATIVE ${PROJECT_SOURCE_DIR} docs/*.[1-8])
foreach(page ${pages})
  require_line(${page} ".Os vistalprod ${PROJECT_VERSION}")
endforeach()
