# SPDX-License-Identifier: Apache-2.0
# Finds the runtime behind clang's blocks (Block.h, libBlocksRuntime) and
# defines the imported target BlocksRuntime::BlocksRuntime.
#
# Used both by Sorvel's own build and, installed beside SorvelConfig.cmake,
# by every client of the installed package, so both see the same target.
#
#   BlocksRuntime_FOUND, BlocksRuntime_INCLUDE_DIR, BlocksRuntime_LIBRARY

find_path(BlocksRuntime_INCLUDE_DIR NAMES Block.h)
# Debian's libblocksruntime-dev ships a shared library (libBlocksRuntime.so
# -> libBlocksRuntime.so.0 from libblocksruntime0) as well as a static one;
# find_library prefers the shared one, which is what a shared Sorvel wants.
find_library(BlocksRuntime_LIBRARY NAMES BlocksRuntime)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(BlocksRuntime
  REQUIRED_VARS BlocksRuntime_LIBRARY BlocksRuntime_INCLUDE_DIR)
mark_as_advanced(BlocksRuntime_INCLUDE_DIR BlocksRuntime_LIBRARY)

if(BlocksRuntime_FOUND AND NOT TARGET BlocksRuntime::BlocksRuntime)
  add_library(BlocksRuntime::BlocksRuntime UNKNOWN IMPORTED)
  set_target_properties(BlocksRuntime::BlocksRuntime PROPERTIES
    IMPORTED_LOCATION "${BlocksRuntime_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${BlocksRuntime_INCLUDE_DIR}")
endif()
