# Records are served by the RPMB emulator to the probe program; their CRC is
# computed with zlib, independently of the library.
find_package(ZLIB REQUIRED)
add_dependencies(hardware_id_test rpmb_emulator rpmb_probe)
target_compile_definitions(hardware_id_test PRIVATE
  QEL_RPMB_EMULATOR="$<TARGET_FILE:rpmb_emulator>"
  QEL_RPMB_PROBE="$<TARGET_FILE:rpmb_probe>")
target_link_libraries(hardware_id_test PRIVATE ZLIB::ZLIB ${CMAKE_DL_LIBS})
