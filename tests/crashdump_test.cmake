# A service that faults for real (the consumer project's), twice: as built,
# and "rebuilt" with other optimisation, so that its code lies elsewhere.
# The armhf case takes the armhf build that scripts/armhf.sh leaves beside
# this one.
set(QEL_FAULTING_SOURCE ${PROJECT_SOURCE_DIR}/tests/consumer/project/faulting_service.cpp)
foreach(variant crashdump_faulting_service crashdump_faulting_service_rebuilt)
  add_executable(${variant} ${QEL_FAULTING_SOURCE})
  target_link_libraries(${variant} PRIVATE qel_util)
  add_dependencies(crashdump_test ${variant})
endforeach()
target_compile_options(crashdump_faulting_service_rebuilt PRIVATE -O1)
target_compile_definitions(crashdump_test PRIVATE
  QEL_FAULTING_SOURCE="${QEL_FAULTING_SOURCE}"
  QEL_FAULTING_SERVICE="$<TARGET_FILE:crashdump_faulting_service>"
  QEL_FAULTING_SERVICE_REBUILT="$<TARGET_FILE:crashdump_faulting_service_rebuilt>"
  QEL_ARMHF_BUILD="${PROJECT_SOURCE_DIR}/build-armhf"
  QEL_QEMU_ARM_RUN="${PROJECT_SOURCE_DIR}/scripts/qemu-arm-run.sh")
if(TARGET qel-crashdump)
  add_dependencies(crashdump_test qel-crashdump)
  target_compile_definitions(crashdump_test PRIVATE
    QEL_CRASHDUMP="$<TARGET_FILE:qel-crashdump>")
endif()
