target_sources(zelapi PRIVATE ${CMAKE_CURRENT_LIST_DIR}/net.cc ${CMAKE_CURRENT_LIST_DIR}/ports.cc)
