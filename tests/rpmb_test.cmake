# The reader runs against the RPMB emulator inside the probe program, which
# runs from a shell (through the emulator in a cross build), and against
# mmc-utils for comparison.
add_dependencies(rpmb_test rpmb_emulator rpmb_probe)
qel_test_program_command(rpmb_probe probe)
target_compile_definitions(rpmb_test PRIVATE
  QEL_RPMB_EMULATOR="$<TARGET_FILE:rpmb_emulator>"
  QEL_RPMB_PROBE="${probe}")
target_link_libraries(rpmb_test PRIVATE ${CMAKE_DL_LIBS})
