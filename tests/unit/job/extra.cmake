target_sources(unit_job PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/Allocations.cpp
                                ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/OpenedFiles.cpp)
