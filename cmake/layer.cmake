# add_layer(TARGET FOLDER SOURCE...): adds the static library TARGET, made of files in FOLDER. Includes are relative to
# the root ("common/log.h"), but a target sees only the folders of the layers that it links, because the include
# directory of each layer contains only a link to its folder. Other includes do not compile.
function(add_layer target folder)
  add_library(${target} STATIC ${ARGN})
  set(include_dir ${PROJECT_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${include_dir})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${include_dir}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${include_dir}>)
endfunction()
