target_link_libraries(unit_snap PRIVATE interpose_Allocations)
target_link_options(unit_snap PRIVATE LINKER:--wrap=calloc)
