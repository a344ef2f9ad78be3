# Installation rules for `cmake --install`, and the Debian packages that `cpack` makes. Each component is a package:
# `daemon` for an appliance, `library` for programs that call it, `development` for building such programs. The daemon
# and ksctl are linked statically, so that they always use the library version with which they were built.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ks)
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# install_compressed(COMPONENT SOURCE DESTINATION [NAME]): Debian's policy requires compressed man pages and changelogs.
function(install_compressed component source destination)
  cmake_path(GET source FILENAME name)
  set(compressed ${PROJECT_BINARY_DIR}/compressed/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/compressed/${component})
  add_custom_command(OUTPUT ${compressed} DEPENDS ${PROJECT_SOURCE_DIR}/${source}
    COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${source} >${compressed})
  add_custom_target(compressed_${component}_${name} ALL DEPENDS ${compressed})
  install(FILES ${compressed} DESTINATION ${destination} COMPONENT ${component})
endfunction()

install(TARGETS vistalprod RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(TARGETS ksctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
install(PROGRAMS packaging/vistalprod.sh DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(FILES packaging/vistalprod.service DESTINATION lib/systemd/system COMPONENT daemon)
install_compressed(daemon docs/vistalprod.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_compressed(daemon docs/vistalprod.sh.8 ${CMAKE_INSTALL_MANDIR}/man8)
install_compressed(daemon docs/ksctl.1 ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES NEWS.md docs/commands.md docs/operations.md docs/protocol.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vistalprod COMPONENT daemon)
install(PROGRAMS examples/client.py DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vistalprod/examples COMPONENT daemon)
install(FILES packaging/ksctl.bash RENAME ksctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT daemon)

install(TARGETS ks_shared EXPORT ks
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS ks EXPORT ks
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set_target_properties(ks_shared PROPERTIES EXPORT_NAME ks)
set_target_properties(ks PROPERTIES EXPORT_NAME ks_static)
install(FILES service/ks.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install_compressed(development docs/libks.3 ${CMAKE_INSTALL_MANDIR}/man3)
install(EXPORT ks NAMESPACE ks:: FILE ksTargets.cmake DESTINATION ${cmake_dir} COMPONENT development)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ksConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES packaging/ksConfig.cmake ${CMAKE_BINARY_DIR}/ksConfigVersion.cmake
  DESTINATION ${cmake_dir} COMPONENT development)
file(RELATIVE_PATH KS_PREFIX_FROM_PC /${pc_dir} /)
string(REGEX REPLACE "/$" "" KS_PREFIX_FROM_PC ${KS_PREFIX_FROM_PC})
configure_file(packaging/ks.pc.in ks.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ks.pc DESTINATION ${pc_dir} COMPONENT development)

set(package_of_daemon vistalprod)
set(package_of_library libks${PROJECT_VERSION_MAJOR})
set(package_of_development libks-dev)
foreach(component daemon library development)
  set(package ${package_of_${component}})
  set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install_compressed(${component} packaging/debian/changelog ${doc_dir})
  install(FILES packaging/debian/copyright DESTINATION ${doc_dir} COMPONENT ${component})
  install(FILES packaging/debian/${component}.lintian-overrides RENAME ${package}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "The vistalprod maintainers <maintainers@localhost>")
set(CPACK_STRIP_FILES ON)  # the build folder keeps the unstripped binaries, for decoding backtraces
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME ${package_of_daemon})
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS iproute2)  # vistalprod.sh uses its ss to find the clients of a service
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/postinst"
  "${PROJECT_SOURCE_DIR}/packaging/debian/prerm" "${PROJECT_SOURCE_DIR}/packaging/debian/postrm")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${package_of_library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/triggers")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_of_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "privileged helper of the video-surveillance package
On a storage appliance it carries out privileged operations for the programs of
the surveillance package, which call it over local sockets. The package includes
the command-line client ksctl and a script for start sequences.")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "named local services - shared library
Programs publish services under a name, and other programs of the same machine
call them. Requests and replies are passed in shared memory.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "named local services - development files
Header, static library, and files for pkg-config and CMake, for programs that
publish or call services with libks.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
include(CPack)
