target_sources(zelapi PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/module.cc
  ${CMAKE_CURRENT_LIST_DIR}/deferred.cc
  ${CMAKE_CURRENT_LIST_DIR}/apistat.cc
  ${CMAKE_CURRENT_LIST_DIR}/mta_registry.cc
  ${CMAKE_CURRENT_LIST_DIR}/warn.cc)
