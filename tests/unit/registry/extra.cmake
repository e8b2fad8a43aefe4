target_sources(unit_registry PRIVATE
  ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/Allocations.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/interpose/FailingMalloc.cpp)
target_link_options(unit_registry PRIVATE
  LINKER:--wrap=malloc,--wrap=clock_gettime,--wrap=pthread_mutex_init,--wrap=pthread_mutex_lock
  LINKER:--wrap=pthread_mutex_destroy,--wrap=pthread_cond_init,--wrap=pthread_cond_timedwait)
