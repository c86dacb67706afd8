target_sources(zelapi PRIVATE ${CMAKE_CURRENT_LIST_DIR}/file.cc ${CMAKE_CURRENT_LIST_DIR}/fd.cc)
