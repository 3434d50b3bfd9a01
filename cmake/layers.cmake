# The daemon's three layers, each its own OBJECT library: utils (transport,
# LAN server, log, allocator, OS layer, text and environment helpers) below
# sp (the service provider: handlers, leases, library dispatch) below the
# daemon (unixmdc: entry, loader, admin socket, metrics).
#
# A layer sees only its own headers and those of the layers below it: every
# layer gets an include root of its own in the build tree that holds links to
# the folders it may use, so `#include "unixmdc/..."` from sp/ or
# `#include "sp/..."` from utils/ does not compile. A check program per lower
# layer links that layer's objects (and those below) on their own, so a
# symbol a lower layer takes from a higher one fails the link as well.
#
# kestrix_layers(SUFFIX [compile options...]) makes kestrix_utils${SUFFIX},
# kestrix_sp${SUFFIX} and kestrix_daemon${SUFFIX} and sets KESTRIX_CORE${SUFFIX}
# to the three; KESTRIX_LAYER_INCLUDE_utils is
# KESTRIX_LAYER_INCLUDE_utils to the include root plug-ins may use.

set(KESTRIX_LAYER_ROOT ${CMAKE_BINARY_DIR}/layers)
function(kestrix_layer_root layer)
  set(root ${KESTRIX_LAYER_ROOT}/${layer})
  file(MAKE_DIRECTORY ${root})
  if(NOT EXISTS ${root}/${layer})
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${layer} ${root}/${layer} SYMBOLIC)
  endif()
endfunction()
kestrix_layer_root(utils)
kestrix_layer_root(sp)
kestrix_layer_root(unixmdc)
kestrix_layer_root(plugins)
set(KESTRIX_LAYER_INCLUDE_utils ${KESTRIX_LAYER_ROOT}/utils ${CMAKE_SOURCE_DIR}/include)

function(kestrix_layers suffix)
  set(options ${ARGN})
  file(GLOB utils_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/utils/*.cc)
  file(GLOB sp_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/sp/*.cc)
  file(GLOB daemon_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/unixmdc/*.cc)
  list(REMOVE_ITEM daemon_sources ${CMAKE_SOURCE_DIR}/unixmdc/main.cc)

  add_library(kestrix_utils${suffix} OBJECT ${utils_sources})
  target_include_directories(kestrix_utils${suffix} PUBLIC ${KESTRIX_LAYER_INCLUDE_utils})
  target_link_libraries(kestrix_utils${suffix} PUBLIC ${KESTRIX_CORE_LIBS})

  add_library(kestrix_sp${suffix} OBJECT ${sp_sources})
  target_include_directories(kestrix_sp${suffix} PUBLIC ${KESTRIX_LAYER_ROOT}/sp)
  target_link_libraries(kestrix_sp${suffix} PUBLIC kestrix_utils${suffix})

  add_library(kestrix_daemon${suffix} OBJECT ${daemon_sources})
  target_include_directories(kestrix_daemon${suffix} PUBLIC ${KESTRIX_LAYER_ROOT}/unixmdc)
  target_link_libraries(kestrix_daemon${suffix} PUBLIC kestrix_sp${suffix})

  foreach(layer utils sp daemon)
    target_compile_options(kestrix_${layer}${suffix} PRIVATE ${options})
  endforeach()

  # Linking an object library directly adds its objects to the program, so
  # a program links all three to get the whole daemon once.
  set(KESTRIX_CORE${suffix} kestrix_utils${suffix} kestrix_sp${suffix} kestrix_daemon${suffix}
      PARENT_SCOPE)
endfunction()

# Links the lower layers on their own; the build fails here when utils or sp
# needs a symbol only a higher layer defines.
function(kestrix_layer_link_checks)
  add_executable(layer_check_utils ${CMAKE_SOURCE_DIR}/cmake/layer_check.cc)
  target_link_libraries(layer_check_utils PRIVATE kestrix_utils)
  add_executable(layer_check_sp ${CMAKE_SOURCE_DIR}/cmake/layer_check.cc)
  target_link_libraries(layer_check_sp PRIVATE kestrix_utils kestrix_sp)
endfunction()
