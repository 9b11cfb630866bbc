# Findlibzip: the libzip library as the imported target libzip::zip.
#
# libzip's own CMake package also imports its command-line tools and stops the configuration
# where they are not installed (Debian's libzip-dev without libzip-tools), so the library and
# its headers are looked up directly. Sets libzip_FOUND and libzip_VERSION.
find_path(libzip_INCLUDE_DIR zip.h)
find_path(libzip_CONF_INCLUDE_DIR zipconf.h HINTS ${libzip_INCLUDE_DIR})
find_library(libzip_LIBRARY zip)

if(libzip_CONF_INCLUDE_DIR AND EXISTS ${libzip_CONF_INCLUDE_DIR}/zipconf.h)
  file(STRINGS ${libzip_CONF_INCLUDE_DIR}/zipconf.h _libzip_version_line REGEX "^#define LIBZIP_VERSION \"")
  string(REGEX REPLACE "^#define LIBZIP_VERSION \"([^\"]*)\".*" "\\1" libzip_VERSION "${_libzip_version_line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(libzip
  REQUIRED_VARS libzip_LIBRARY libzip_INCLUDE_DIR libzip_CONF_INCLUDE_DIR
  VERSION_VAR libzip_VERSION)

if(libzip_FOUND AND NOT TARGET libzip::zip)
  add_library(libzip::zip UNKNOWN IMPORTED GLOBAL)
  set_target_properties(libzip::zip PROPERTIES
    IMPORTED_LOCATION ${libzip_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES "${libzip_INCLUDE_DIR};${libzip_CONF_INCLUDE_DIR}")
endif()
mark_as_advanced(libzip_INCLUDE_DIR libzip_CONF_INCLUDE_DIR libzip_LIBRARY)
