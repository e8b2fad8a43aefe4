target_link_libraries(unit_driver PRIVATE interpose_OpenedFiles)
# One test loads and unloads the built library.
add_dependencies(unit_driver mirelsnap_shared)
target_compile_definitions(unit_driver PRIVATE MIRELSNAP_SHARED_LIBRARY="$<TARGET_FILE:mirelsnap_shared>")
