target_link_libraries(unit_engine PRIVATE interpose_Allocations)
target_link_options(unit_engine PRIVATE LINKER:--wrap=access LINKER:--wrap=open LINKER:--wrap=calloc)
