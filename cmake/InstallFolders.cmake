# Where things go below the prefix. On Debian the libraries go into the architecture's folder below every prefix, as the
# loader, pkg-config and CMake look there below /usr and /usr/local alike: one build then serves both.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
