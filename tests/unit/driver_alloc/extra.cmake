# The allocations of the library's own objects go through the test's hands.
target_link_options(unit_driver_alloc PRIVATE LINKER:--wrap=calloc LINKER:--wrap=_ZnwmRKSt9nothrow_t
  LINKER:--wrap=_ZnamRKSt9nothrow_t)
target_link_libraries(unit_driver_alloc PRIVATE interpose_Allocations)
