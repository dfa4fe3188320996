# The probe runs from a shell (through qemu when cross) with the emulator.
add_dependencies(rpmb_test qel_rpmb_emulator device_probe)
qel_test_program_command(device_probe probe)
target_compile_definitions(rpmb_test PRIVATE
  QEL_RPMB_EMULATOR="$<TARGET_FILE:qel_rpmb_emulator>" QEL_RPMB_PROBE="${probe}")
