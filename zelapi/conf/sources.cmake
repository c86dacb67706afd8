target_sources(zelapi PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/token.cc
  ${CMAKE_CURRENT_LIST_DIR}/field.cc
  ${CMAKE_CURRENT_LIST_DIR}/parse_context.cc
  ${CMAKE_CURRENT_LIST_DIR}/store.cc
  ${CMAKE_CURRENT_LIST_DIR}/loader.cc
  ${CMAKE_CURRENT_LIST_DIR}/line_writer.cc
  ${CMAKE_CURRENT_LIST_DIR}/cached_file.cc
  ${CMAKE_CURRENT_LIST_DIR}/dataset.cc
  ${CMAKE_CURRENT_LIST_DIR}/cache.cc)
