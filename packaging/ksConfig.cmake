# find_package(ks): ks::ks is the shared library, ks::ks_static the static one.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/ksTargets.cmake)
