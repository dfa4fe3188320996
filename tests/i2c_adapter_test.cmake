add_dependencies(i2c_adapter_test qel_i2c_emulator)
target_compile_definitions(i2c_adapter_test PRIVATE
  QEL_I2C_EMULATOR="$<TARGET_FILE:qel_i2c_emulator>")
