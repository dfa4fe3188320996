add_dependencies(i2c_adapter_test qel_i2c_emulator)
qel_test_file(qel_i2c_emulator ${QEL_TEST_EMULATOR_DIR} emulator)
target_compile_definitions(i2c_adapter_test PRIVATE QEL_I2C_EMULATOR="${emulator}")
