# The kernel command line reader is internal: built in to test it directly.
target_sources(shell_test PRIVATE ${PROJECT_SOURCE_DIR}/system/kernel_cmdline.cpp)
