# The texts alone: the verbs are tested as programs.
target_sources(unit_cli PRIVATE ${CMAKE_SOURCE_DIR}/cli/Text.cpp)
target_include_directories(unit_cli PRIVATE ${CMAKE_SOURCE_DIR}/cli)
