# The documents and the headers that they describe, as they are in the sources.
target_compile_definitions(unit_docs PRIVATE
  AGENT_GUIDE="${CMAKE_SOURCE_DIR}/docs/agent-guide.md"
  ENGINE_HEADER="${CMAKE_SOURCE_DIR}/include/mirelsnap/SnapshotEngine.h"
  PROTOCOL_DOCUMENT="${CMAKE_SOURCE_DIR}/docs/driver-protocol.md"
  PROTOCOL_HEADER="${CMAKE_SOURCE_DIR}/src/driver/DriverProtocol.h")
