# The room next door lends its fixture.
target_include_directories(unit_tracking PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../driver)
target_sources(unit_tracking PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../driver/Interposed.cpp)
