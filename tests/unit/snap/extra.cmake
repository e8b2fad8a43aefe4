target_sources(unit_snap PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/Allocations.cpp)
target_link_options(unit_snap PRIVATE LINKER:--wrap=calloc)
