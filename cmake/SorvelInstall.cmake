# SPDX-License-Identifier: Apache-2.0
# Install rules: headers, both libraries, the CMake package and sorvel.pc.
#
#   include/Sorvel/*.h                    Sorvel's headers     (<Sorvel/SVTime.h>)
#   include/Sorvel/platform/<Family>/*.h  the platform headers (<CoreFoundation/CoreFoundation.h>
#                                          through -I<includedir>/Sorvel/platform)
#   lib/libSorvel.so*, lib/libSorvelPlatform.so*
#   lib/cmake/Sorvel/                     SorvelConfig.cmake and friends
#   lib/pkgconfig/sorvel.pc              any C/C++ compiler
#   lib/pkgconfig/sorvel-blocks.pc       sorvel.pc plus -fblocks and BlocksRuntime (clang)
#
# The platform headers sit under Sorvel's own directory so that installing
# Sorvel never puts a CoreFoundation/ or dispatch/ directory straight into a
# shared include directory, where it could shadow another package's headers.

include(CMakePackageConfigHelpers)

set(SORVEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sorvel)
set(SORVEL_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/Sorvel/platform)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/Sorvel/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Sorvel
  COMPONENT Development
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/Sorvel/SVVersion.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Sorvel
  COMPONENT Development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/
  DESTINATION ${SORVEL_PLATFORM_INCLUDEDIR}
  COMPONENT Development
  FILES_MATCHING PATTERN "*.h")

set(_sorvel_install_targets)
foreach(_target SorvelPlatform Sorvel)
  if(TARGET ${_target})
    list(APPEND _sorvel_install_targets ${_target})
  endif()
endforeach()

if(_sorvel_install_targets)
  install(TARGETS ${_sorvel_install_targets}
    EXPORT SorvelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT Runtime
      NAMELINK_COMPONENT Development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

  install(EXPORT SorvelTargets
    NAMESPACE Sorvel::
    DESTINATION ${SORVEL_INSTALL_CMAKEDIR}
    COMPONENT Development)

  configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/SorvelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/SorvelConfig.cmake
    INSTALL_DESTINATION ${SORVEL_INSTALL_CMAKEDIR})
  write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/SorvelConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
  install(FILES
      ${PROJECT_BINARY_DIR}/SorvelConfig.cmake
      ${PROJECT_BINARY_DIR}/SorvelConfigVersion.cmake
      ${PROJECT_SOURCE_DIR}/cmake/FindBlocksRuntime.cmake
    DESTINATION ${SORVEL_INSTALL_CMAKEDIR}
    COMPONENT Development)
endif()

# sorvel.pc finds its prefix from its own location (${pcfiledir}), so the
# tree stays relocatable: `cmake --install <build> --prefix <anywhere>` works
# without reconfiguring.
set(_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(SORVEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(SORVEL_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(SORVEL_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH _pc_to_prefix /prefix/${_pc_dir} /prefix)
  string(REGEX REPLACE "/$" "" _pc_to_prefix "${_pc_to_prefix}")
  set(SORVEL_PC_PREFIX "\${pcfiledir}/${_pc_to_prefix}")
  set(SORVEL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(SORVEL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/sorvel.pc.in ${PROJECT_BINARY_DIR}/sorvel.pc @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/sorvel-blocks.pc.in ${PROJECT_BINARY_DIR}/sorvel-blocks.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sorvel.pc ${PROJECT_BINARY_DIR}/sorvel-blocks.pc
  DESTINATION ${_pc_dir}
  COMPONENT Development)
