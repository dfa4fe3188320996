# The kernel command line reader is internal to the library: built in here.
target_sources(shell_test PRIVATE ${PROJECT_SOURCE_DIR}/system/kernel_cmdline.cpp)
