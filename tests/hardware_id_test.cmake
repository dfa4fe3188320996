# Records are served by the RPMB emulator to the probe program, which runs
# from a shell (through the emulator in a cross build).
add_dependencies(hardware_id_test rpmb_emulator rpmb_probe)
qel_test_program_command(rpmb_probe probe)
target_compile_definitions(hardware_id_test PRIVATE
  QEL_RPMB_EMULATOR="$<TARGET_FILE:rpmb_emulator>"
  QEL_RPMB_PROBE="${probe}")
target_link_libraries(hardware_id_test PRIVATE ${CMAKE_DL_LIBS})
