target_sources(zelapi PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/token.cc
  ${CMAKE_CURRENT_LIST_DIR}/record.cc
  ${CMAKE_CURRENT_LIST_DIR}/parse.cc
  ${CMAKE_CURRENT_LIST_DIR}/store.cc
  ${CMAKE_CURRENT_LIST_DIR}/cached_file.cc
  ${CMAKE_CURRENT_LIST_DIR}/dataset.cc
  ${CMAKE_CURRENT_LIST_DIR}/cache.cc)
