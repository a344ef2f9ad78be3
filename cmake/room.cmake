# A room is one folder of the house built as one static library. Includes are written from the root
# ("common/log.h"), but a target sees only the folders of the rooms that it links: each room's include directory
# holds a single link, its own folder. A wrong include therefore does not build.
function(add_room target folder)
  add_library(${target} STATIC ${ARGN})
  set(door ${CMAKE_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${door})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${folder} ${door}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${door}>)
endfunction()
