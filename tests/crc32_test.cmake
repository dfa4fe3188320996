# zlib is the reference; a cross build without it runs the check values only.
find_package(ZLIB)
if(ZLIB_FOUND)
  target_link_libraries(crc32_test PRIVATE ZLIB::ZLIB)
  target_compile_definitions(crc32_test PRIVATE QEL_TEST_HAVE_ZLIB=1)
elseif(NOT CMAKE_CROSSCOMPILING)
  message(FATAL_ERROR "zlib not found (Debian: zlib1g-dev)")
endif()
