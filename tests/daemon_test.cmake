add_dependencies(daemon_test qel_test_daemon)
target_compile_definitions(daemon_test PRIVATE QEL_TEST_DAEMON="$<TARGET_FILE:qel_test_daemon>")
