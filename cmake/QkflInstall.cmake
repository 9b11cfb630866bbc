# cmake --install: the shared library with its SONAME, the public and platform headers, the
# reference providers, the tool, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(QKFL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qkflstorageprovider)

install(TARGETS qkflstorageprovider EXPORT qkflstorageproviderTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${PROJECT_SOURCE_DIR}/platform/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

foreach(p memory local zip dav)
  if(TARGET qkfl_${p}provider)
    install(TARGETS qkfl_${p}provider EXPORT qkflstorageproviderTargets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/providers/${p}/include/
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
  endif()
endforeach()

install(EXPORT qkflstorageproviderTargets NAMESPACE qkfl:: DESTINATION ${QKFL_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qkflstorageproviderConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qkflstorageproviderConfig.cmake
  INSTALL_DESTINATION ${QKFL_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qkflstorageproviderConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qkflstorageproviderConfig.cmake
              ${PROJECT_BINARY_DIR}/qkflstorageproviderConfigVersion.cmake
  DESTINATION ${QKFL_INSTALL_CMAKEDIR})

# Relocatable: the prefix is found from the .pc file's own folder, so an installed tree may
# move (and cmake --install --prefix works after configuring for another prefix).
file(RELATIVE_PATH QKFL_PC_PREFIX "/qkfl-prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/qkfl-prefix")
string(REGEX REPLACE "/$" "" QKFL_PC_PREFIX "${QKFL_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/qkflstorageprovider.pc.in
  ${PROJECT_BINARY_DIR}/qkflstorageprovider.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qkflstorageprovider.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
