# The simulator runs the build's own tools and the probe; its armhf case
# runs the armhf build that scripts/armhf.sh leaves beside this one.
if(TARGET qel-devinfo)
  add_dependencies(devsim_test qel-devsim qel-devinfo qel-neighbour device_probe)
  target_compile_definitions(devsim_test PRIVATE
    QEL_DEVSIM="$<TARGET_FILE:qel-devsim>"
    QEL_DEVINFO="$<TARGET_FILE:qel-devinfo>"
    QEL_NEIGHBOUR="$<TARGET_FILE:qel-neighbour>"
    QEL_PROBE="$<TARGET_FILE:device_probe>"
    QEL_ARMHF_BUILD="${PROJECT_SOURCE_DIR}/build-armhf")
endif()
