target_sources(zelapi PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/access_entries.cc
  ${CMAKE_CURRENT_LIST_DIR}/database.cc
  ${CMAKE_CURRENT_LIST_DIR}/email.cc
  ${CMAKE_CURRENT_LIST_DIR}/file_state.cc
  ${CMAKE_CURRENT_LIST_DIR}/responder_settings.cc
  ${CMAKE_CURRENT_LIST_DIR}/schema.cc)
