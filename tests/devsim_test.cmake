# The simulator runs the build's own tools and the probe; its armhf case
# runs the armhf build that scripts/armhf.sh leaves beside this one.
# An installed suite (a ptest package) has no armhf build beside it: the
# case skips there.
set(armhf_build ${PROJECT_SOURCE_DIR}/build-armhf)
if(QEL_UTIL_INSTALL_TESTS)
  set(armhf_build "")
endif()
if(TARGET qel-devinfo)
  add_dependencies(devsim_test qel-devsim qel-devinfo qel-neighbour device_probe)
  foreach(tool qel-devsim qel-devinfo qel-neighbour)
    qel_test_file(${tool} ${CMAKE_INSTALL_FULL_BINDIR} ${tool})
  endforeach()
  qel_test_file(device_probe ${QEL_TEST_DIR} probe)
  target_compile_definitions(devsim_test PRIVATE
    QEL_DEVSIM="${qel-devsim}"
    QEL_DEVINFO="${qel-devinfo}"
    QEL_NEIGHBOUR="${qel-neighbour}"
    QEL_PROBE="${probe}"
    QEL_ARMHF_BUILD="${armhf_build}")
endif()
