# Installation: the shared library (with its SONAME link), the public headers, the CMake package
# (find_package(Larkpost) gives larkpost::larkpost) and the pkg-config file larkpost.pc.
include(CMakePackageConfigHelpers)

set(LARKPOST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Larkpost)

install(TARGETS larkpost
  EXPORT LarkpostTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/larkpost
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${LARKPOST_GENERATED_INCLUDE}/larkpost/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/larkpost)

install(EXPORT LarkpostTargets
  NAMESPACE larkpost::
  DESTINATION ${LARKPOST_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/LarkpostConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LarkpostConfig.cmake
  INSTALL_DESTINATION ${LARKPOST_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LarkpostConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/LarkpostConfig.cmake
  ${PROJECT_BINARY_DIR}/LarkpostConfigVersion.cmake
  DESTINATION ${LARKPOST_CMAKE_DIR})

# pkg-config: paths relative to the prefix of the .pc file, so the tree can move.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(LARKPOST_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(LARKPOST_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(LARKPOST_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(LARKPOST_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
file(RELATIVE_PATH LARKPOST_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${CMAKE_CURRENT_LIST_DIR}/larkpost.pc.in ${PROJECT_BINARY_DIR}/larkpost.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/larkpost.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
