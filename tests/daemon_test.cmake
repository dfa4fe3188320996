add_dependencies(daemon_test qel_test_daemon)
qel_test_file(qel_test_daemon ${QEL_TEST_DIR} daemon)
target_compile_definitions(daemon_test PRIVATE QEL_TEST_DAEMON="${daemon}")
