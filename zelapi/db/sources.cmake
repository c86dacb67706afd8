target_sources(zelapi PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/cache.cc
  ${CMAKE_CURRENT_LIST_DIR}/field.cc
  ${CMAKE_CURRENT_LIST_DIR}/statement.cc
  ${CMAKE_CURRENT_LIST_DIR}/table.cc)
