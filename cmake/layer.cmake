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

# draw_layers(FILE FOLDER...): writes a picture of the links between the targets in these folders to FILE. `./test lint`
# compares it with the one in docs/architecture.md. Parts of the C library are left out.
function(draw_layers file)
  set(picture "```mermaid\nflowchart TD\n")
  set(arrows "")
  foreach(folder ${ARGN})
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    list(JOIN targets "; " nodes)
    string(APPEND picture "  subgraph in_${folder} [\"${folder}/\"]\n    ${nodes}\n  end\n")
    foreach(target ${targets})
      get_target_property(linked ${target} LINK_LIBRARIES)
      list(TRANSFORM linked REPLACE "^PkgConfig::JSONCPP$" jsoncpp)
      list(REMOVE_ITEM linked linked-NOTFOUND Threads::Threads ${CMAKE_DL_LIBS})
      foreach(library ${linked})
        string(APPEND arrows "  ${target} --> ${library}\n")
      endforeach()
    endforeach()
  endforeach()
  file(CONFIGURE OUTPUT ${file} CONTENT "${picture}${arrows}```\n" @ONLY)
endfunction()
