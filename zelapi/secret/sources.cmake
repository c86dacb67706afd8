target_sources(zelapi PRIVATE ${CMAKE_CURRENT_LIST_DIR}/password.cc)
