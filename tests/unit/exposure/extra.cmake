target_link_libraries(unit_exposure PRIVATE interpose_Allocations interpose_FailingCopies interpose_FailingMalloc)
target_link_options(unit_exposure PRIVATE LINKER:--wrap=strdup,--wrap=wcsdup,--wrap=calloc,--wrap=malloc)
