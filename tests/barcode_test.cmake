# The barcode's text handling is internal: built in to test it directly.
target_sources(barcode_test PRIVATE ${PROJECT_SOURCE_DIR}/system/barcode_parser.cpp)
# qel-devinfo shows the barcode; the test runs it when the tools are built.
if(TARGET qel-devinfo)
  add_dependencies(barcode_test qel-devinfo)
  qel_test_program_command(qel-devinfo ${CMAKE_INSTALL_FULL_BINDIR} devinfo)
  target_compile_definitions(barcode_test PRIVATE QEL_DEVINFO="${devinfo}")
endif()
