target_sources(zelapi PRIVATE ${CMAKE_CURRENT_LIST_DIR}/proc.cc ${CMAKE_CURRENT_LIST_DIR}/spawn.cc)
