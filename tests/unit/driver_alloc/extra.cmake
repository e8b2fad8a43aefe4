# The allocations of the library's own objects go through the test's hands.
target_link_options(unit_driver_alloc PRIVATE LINKER:--wrap=calloc LINKER:--wrap=_ZnwmRKSt9nothrow_t
  LINKER:--wrap=_ZnamRKSt9nothrow_t)
target_sources(unit_driver_alloc PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/Allocations.cpp)
