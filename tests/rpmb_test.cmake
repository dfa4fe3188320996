# The probe runs from a shell (through qemu when cross) with the emulator.
add_dependencies(rpmb_test qel_rpmb_emulator device_probe)
qel_test_program_command(device_probe ${QEL_TEST_DIR} probe)
qel_test_file(qel_rpmb_emulator ${QEL_TEST_EMULATOR_DIR} emulator)
target_compile_definitions(rpmb_test PRIVATE
  QEL_RPMB_EMULATOR="${emulator}" QEL_RPMB_PROBE="${probe}")
