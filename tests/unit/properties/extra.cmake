target_link_libraries(unit_properties PRIVATE interpose_Allocations interpose_FailingCopies)
target_link_options(unit_properties PRIVATE LINKER:--wrap=strdup,--wrap=wcsdup,--wrap=calloc)
