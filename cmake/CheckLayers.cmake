# SPDX-License-Identifier: Apache-2.0
# Fails when an include in Sources/ or include/Sorvel/ points up a layer.
#
#   cmake -DROOT=<source tree> -P cmake/CheckLayers.cmake
#
# Layers, lowest first: core; then time, buffers and bitstream side by side
# (none includes another); then formats; then samples.  A file may include
# files of its own layer and of lower ones.  A private header is named with
# its folder ("time/SVTimeInternal.h"); a public header's layer is listed
# below, and a public header missing from the list fails the check so that
# each new family says where it stands.

set(rank_core 0)
set(rank_time 1)
set(rank_buffers 1)
set(rank_bitstream 1)
set(rank_formats 2)
set(rank_samples 3)

set(public_SVBase core)
set(public_SVVersion core)
set(public_SVStatus core)
set(public_SVTime time)
set(public_SVClock time)
set(public_SVTimebase time)
set(public_SVSync time)
set(public_SVBlockBuffer buffers)
set(public_SVSimpleQueue buffers)
set(public_SVMemoryPool buffers)
set(public_SVNALUnit bitstream)
set(public_SVParameterSets bitstream)
set(public_SVFormatDescription formats)
set(public_SVMetadata formats)
set(public_SVSampleDescription formats)
set(public_SVSampleBuffer samples)
set(public_SVAttachment samples)
set(public_SVBufferQueue samples)
# The umbrella header stands above every layer; nothing in the tree includes it.
set(public_Sorvel umbrella)
set(rank_umbrella 9)

function(layer_of_public name out)
  if(NOT DEFINED public_${name})
    message(SEND_ERROR "include/Sorvel/${name}.h has no layer: add it to cmake/CheckLayers.cmake")
    set(${out} "" PARENT_SCOPE)
    return()
  endif()
  set(${out} ${public_${name}} PARENT_SCOPE)
endfunction()

set(failures 0)
function(check_file path layer)
  file(STRINGS "${path}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
  foreach(line IN LISTS includes)
    set(target "")
    if(line MATCHES "<Sorvel/([A-Za-z0-9_]+)\\.h>")
      layer_of_public(${CMAKE_MATCH_1} target)
    elseif(line MATCHES "\"([a-z]+)/[A-Za-z0-9_]+\\.(h|cpp)\"")
      set(target ${CMAKE_MATCH_1})
      if(NOT DEFINED rank_${target})
        set(target "")
      endif()
    endif()
    if(target STREQUAL "" OR target STREQUAL layer)
      continue()
    endif()
    if(NOT rank_${target} LESS rank_${layer})
      file(RELATIVE_PATH rel "${ROOT}" "${path}")
      string(STRIP "${line}" line)
      message(SEND_ERROR "${rel} (${layer}) includes ${target}: ${line}")
    endif()
  endforeach()
endfunction()

foreach(layer core time buffers bitstream formats samples)
  file(GLOB files "${ROOT}/Sources/${layer}/*.cpp" "${ROOT}/Sources/${layer}/*.h")
  foreach(f IN LISTS files)
    check_file("${f}" ${layer})
  endforeach()
endforeach()

file(GLOB stray "${ROOT}/Sources/*.cpp" "${ROOT}/Sources/*.h")
foreach(f IN LISTS stray)
  message(SEND_ERROR "${f} is outside every layer folder")
endforeach()

file(GLOB headers "${ROOT}/include/Sorvel/*.h")
foreach(h IN LISTS headers)
  get_filename_component(name "${h}" NAME_WE)
  layer_of_public(${name} layer)
  if(NOT layer STREQUAL "")
    check_file("${h}" ${layer})
  endif()
endforeach()
