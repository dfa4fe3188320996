# zlib is the reference the checksum is compared against. A cross build may
# have no zlib for the target: the comparisons are skipped there, the check
# values still run.
if(CMAKE_CROSSCOMPILING)
  find_package(ZLIB)
else()
  find_package(ZLIB REQUIRED)
endif()
if(ZLIB_FOUND)
  target_link_libraries(crc32_test PRIVATE ZLIB::ZLIB)
  target_compile_definitions(crc32_test PRIVATE QEL_TEST_HAVE_ZLIB=1)
endif()
