# What `cmake --install` puts where, and the Debian packages that `cpack` makes of it. Three components, each a package:
# `daemon` for an appliance, `library` for programs that call it, `development` for building those. The header is
# <ks.h>. The daemon and ksctl carry the library in themselves, so that they never meet another version of it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ks)
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS vistalprod RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(TARGETS ksctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
install(PROGRAMS packaging/vistalprod.sh DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(FILES packaging/vistalprod.service DESTINATION lib/systemd/system COMPONENT daemon)
install(FILES docs/vistalprod.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
install(FILES docs/ksctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT daemon)
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
install(FILES docs/libks.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
install(EXPORT ks NAMESPACE ks:: FILE ksTargets.cmake DESTINATION ${cmake_dir} COMPONENT development)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ksConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES packaging/ksConfig.cmake ${CMAKE_BINARY_DIR}/ksConfigVersion.cmake
  DESTINATION ${cmake_dir} COMPONENT development)
file(RELATIVE_PATH KS_PREFIX_FROM_PC /${pc_dir} /)
string(REGEX REPLACE "/$" "" KS_PREFIX_FROM_PC ${KS_PREFIX_FROM_PC})
configure_file(packaging/ks.pc.in ks.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ks.pc DESTINATION ${pc_dir} COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "vistalprod maintainers <root@localhost>")
set(CPACK_STRIP_FILES ON)  # the binary that a backtrace is looked up in stays in the build folder
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME vistalprod)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libks${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libks-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "privileged helper of the video-surveillance package, and its client ksctl")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "named local services, shared library")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "named local services, for building programs that call them")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
include(CPack)
