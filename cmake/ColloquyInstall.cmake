# Install rules, the exported CMake package ColloquyUtil and the pkg-config file.

include(CMakePackageConfigHelpers)

install(TARGETS ColloquyPlatform ColloquyUtil EXPORT ColloquyUtilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/colloquyutil)
# The platform headers go to their own directory (PUBLIC_HEADER of ColloquyPlatform is
# installed here explicitly because one install(TARGETS) call has one header destination).
install(FILES $<TARGET_PROPERTY:ColloquyPlatform,PUBLIC_HEADER>
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/colloquyplatform)

set(COLLOQUY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ColloquyUtil)
install(EXPORT ColloquyUtilTargets NAMESPACE ColloquyUtil:: DESTINATION ${COLLOQUY_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ColloquyUtilConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ColloquyUtilConfig.cmake INSTALL_DESTINATION ${COLLOQUY_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ColloquyUtilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ColloquyUtilConfig.cmake
              ${PROJECT_BINARY_DIR}/ColloquyUtilConfigVersion.cmake
  DESTINATION ${COLLOQUY_CMAKE_DIR})

# The prefix is found from the .pc file's own place, so `cmake --install --prefix` may relocate it.
file(RELATIVE_PATH COLLOQUY_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(${PROJECT_SOURCE_DIR}/cmake/colloquyutil.pc.in ${PROJECT_BINARY_DIR}/colloquyutil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/colloquyutil.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
