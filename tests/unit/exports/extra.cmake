# The library as it is built, read and loaded by the tests.
add_dependencies(unit_exports mirelsnap_shared)
target_compile_definitions(unit_exports PRIVATE MIRELSNAP_LIBRARY="$<TARGET_FILE:mirelsnap_shared>")
target_link_libraries(unit_exports PRIVATE ${CMAKE_DL_LIBS})
# One test includes the rooms' headers as they are found from the root.
target_include_directories(unit_exports PRIVATE ${PROJECT_SOURCE_DIR})
