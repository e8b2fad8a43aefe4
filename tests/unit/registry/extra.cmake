target_link_libraries(unit_registry PRIVATE interpose_Allocations interpose_FailingMalloc)
target_link_options(unit_registry PRIVATE
  LINKER:--wrap=malloc,--wrap=clock_gettime,--wrap=pthread_mutex_init,--wrap=pthread_mutex_lock
  LINKER:--wrap=pthread_mutex_destroy,--wrap=pthread_cond_init,--wrap=pthread_cond_timedwait)
