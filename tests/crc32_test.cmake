# zlib is the reference the checksum is compared against.
find_package(ZLIB REQUIRED)
target_link_libraries(crc32_test PRIVATE ZLIB::ZLIB)
