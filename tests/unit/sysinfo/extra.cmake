target_sources(unit_sysinfo PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/Allocations.cpp
                                   ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/OpenedFiles.cpp)
