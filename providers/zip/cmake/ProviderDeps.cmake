# Dependencies of the installed reference providers, found before their targets are imported.
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR})
find_dependency(libzip 1.7 MODULE)
