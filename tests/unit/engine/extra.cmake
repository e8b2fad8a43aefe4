target_sources(unit_engine PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/Allocations.cpp)
target_link_options(unit_engine PRIVATE LINKER:--wrap=access LINKER:--wrap=open LINKER:--wrap=calloc)
