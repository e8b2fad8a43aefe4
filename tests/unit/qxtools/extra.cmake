target_sources(unit_qxtools PRIVATE
  ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/Allocations.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/FailingMalloc.cpp)
target_link_options(unit_qxtools PRIVATE LINKER:--wrap=malloc)
