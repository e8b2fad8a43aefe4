target_sources(unit_exposure PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/Allocations.cpp
                                   ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/FailingCopies.cpp
                                   ${CMAKE_CURRENT_LIST_DIR}/../../support/interpose/FailingMalloc.cpp)
target_link_options(unit_exposure PRIVATE LINKER:--wrap=strdup,--wrap=wcsdup,--wrap=calloc,--wrap=malloc)
