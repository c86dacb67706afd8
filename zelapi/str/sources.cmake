target_sources(zelapi PRIVATE ${CMAKE_CURRENT_LIST_DIR}/str.cc ${CMAKE_CURRENT_LIST_DIR}/idn.cc ${CMAKE_CURRENT_LIST_DIR}/hash.cc)
