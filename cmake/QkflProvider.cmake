# qkfl_add_provider(<name> [SOURCES <file>...] [LIBRARIES <library>...])
#
# A reference provider in the current folder: the static, position-independent library
# qkfl_<name>provider (alias qkfl::<name>provider, export name <name>provider) with hidden
# symbols, public headers in include/ and private ones in src/. SOURCES default to every .cpp
# below src/. The provider links the core publicly and LIBRARIES privately; the warnings
# target stays out of the installed interface. `NAME <name>` may stand for the leading name.
function(qkfl_add_provider)
  cmake_parse_arguments(P "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT P_NAME)
    list(POP_FRONT P_UNPARSED_ARGUMENTS P_NAME)
  endif()
  if(NOT P_NAME OR P_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "qkfl_add_provider(<name> [SOURCES ...] [LIBRARIES ...]): bad arguments ${ARGN}")
  endif()
  if(NOT P_SOURCES)
    file(GLOB_RECURSE P_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp)
  endif()
  set(target qkfl_${P_NAME}provider)
  add_library(${target} STATIC ${P_SOURCES})
  add_library(qkfl::${P_NAME}provider ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    EXPORT_NAME ${P_NAME}provider)
  target_include_directories(${target}
    PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE
      ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_link_libraries(${target}
    PUBLIC qkfl::storageprovider
    PRIVATE ${P_LIBRARIES} $<BUILD_INTERFACE:qkfl_warnings>)
endfunction()
