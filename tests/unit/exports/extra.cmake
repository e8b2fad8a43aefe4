# The library as it is built, read and loaded by the tests.
add_dependencies(unit_exports mirelsnap_shared)
target_compile_definitions(unit_exports PRIVATE MIRELSNAP_LIBRARY="$<TARGET_FILE:mirelsnap_shared>")
target_link_libraries(unit_exports PRIVATE ${CMAKE_DL_LIBS})
