# The interface-name rules are internal to the library (hidden symbols); the
# test compiles their source to check them directly.
target_sources(ipv4_neighbour_test PRIVATE
  ${PROJECT_SOURCE_DIR}/net/interface_name.cpp)
