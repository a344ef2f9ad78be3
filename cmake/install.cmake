# What `cmake --install` puts where, and the Debian packages that `cpack` makes of it. Three components, each a package:
# `daemon` for an appliance, `library` for programs that call it, `development` for building those. The header is
# <ks.h>. The daemon and ksctl carry the library in themselves, so that they never meet another version of it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ks)
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS vistalprod RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
install(TARGETS ksctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
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
target_link_libraries(ks INTERFACE $<INSTALL_INTERFACE:stdc++>)  # for clients that are linked by a C compiler
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
