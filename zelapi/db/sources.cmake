# The database layer runs once per line of large files in a cache pass, so it
# is compiled optimised in every build type (debug information stays).
set(_zel_db_sources
  ${CMAKE_CURRENT_LIST_DIR}/cache.cc
  ${CMAKE_CURRENT_LIST_DIR}/field.cc
  ${CMAKE_CURRENT_LIST_DIR}/statement.cc
  ${CMAKE_CURRENT_LIST_DIR}/table.cc)
target_sources(zelapi PRIVATE ${_zel_db_sources})
set_source_files_properties(${_zel_db_sources} PROPERTIES COMPILE_OPTIONS "-O2")
