target_sources(unit_properties PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/Allocations.cpp
                                   ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/FailingCopies.cpp)
target_link_options(unit_properties PRIVATE LINKER:--wrap=strdup,--wrap=wcsdup,--wrap=calloc)
