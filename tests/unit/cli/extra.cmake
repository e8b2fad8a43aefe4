# What needs no option: the verbs are tested as programs.
target_sources(unit_cli PRIVATE ${CMAKE_SOURCE_DIR}/cli/Text.cpp ${CMAKE_SOURCE_DIR}/cli/SnapshotDevice.cpp)
target_include_directories(unit_cli PRIVATE ${CMAKE_SOURCE_DIR}/cli)
