# Installation: the public header, the shared library, the gxstg tool, a CMake
# package (find_package(gxStorage) gives the imported target
# gxStorage::gxStorage) and a pkg-config file (gxStorage.pc).
#
#   cmake --install build/release --prefix /usr/local
include(CMakePackageConfigHelpers)

set(GXSTORAGE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/gxStorage")

# The export set that the package's targets file is generated from.
install(TARGETS gxStorage EXPORT gxStorageTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT gxStorageTargets
  NAMESPACE gxStorage::
  FILE gxStorageTargets.cmake
  DESTINATION ${GXSTORAGE_CMAKE_DIR})

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/gxStorageConfig.cmake.in"
  "${CMAKE_CURRENT_BINARY_DIR}/gxStorageConfig.cmake"
  INSTALL_DESTINATION ${GXSTORAGE_CMAKE_DIR})
write_basic_package_version_file(
  "${CMAKE_CURRENT_BINARY_DIR}/gxStorageConfigVersion.cmake"
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/gxStorageConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/gxStorageConfigVersion.cmake"
  DESTINATION ${GXSTORAGE_CMAKE_DIR})

# The pkg-config file finds the prefix relative to its own folder, so the
# prefix given to `cmake --install --prefix` applies and the tree can move.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(GXSTORAGE_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _gx_up "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
  string(REGEX REPLACE "/$" "" _gx_up "${_gx_up}")
  set(GXSTORAGE_PC_PREFIX "\${pcfiledir}/${_gx_up}")
endif()
configure_file("${CMAKE_CURRENT_LIST_DIR}/gxStorage.pc.in"
               "${CMAKE_CURRENT_BINARY_DIR}/gxStorage.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/gxStorage.pc"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
