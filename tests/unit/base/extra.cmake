# A kernel without openat2.
target_link_options(unit_base PRIVATE LINKER:--wrap=syscall)
