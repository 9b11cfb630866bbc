# Dependencies of the installed reference providers, found before their targets are imported.
set(_qkfl_module_path "${CMAKE_MODULE_PATH}")
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR})
find_dependency(libzip 1.7 MODULE)
set(CMAKE_MODULE_PATH "${_qkfl_module_path}")
unset(_qkfl_module_path)
