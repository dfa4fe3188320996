# `cmake --build <dir> --target uninstall` removes what the last
# `cmake --install <dir>` put in place, as listed in its install_manifest.txt,
# and the folders of this project left empty by that.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -DMANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt
            -P ${CMAKE_CURRENT_LIST_FILE}
    COMMENT "Removing the installed files of qel_util")
  return()
endif()

if(NOT EXISTS "${MANIFEST}")
  message(FATAL_ERROR "nothing to uninstall: ${MANIFEST} not found "
                      "(run cmake --install first)")
endif()
file(STRINGS "${MANIFEST}" files)
set(folders)
foreach(file IN LISTS files)
  set(path "$ENV{DESTDIR}${file}")
  if(EXISTS "${path}" OR IS_SYMLINK "${path}")
    message(STATUS "Removing ${path}")
    file(REMOVE "${path}")
  endif()
  get_filename_component(folder "${path}" DIRECTORY)
  list(APPEND folders "${folder}")
endforeach()
# Only folders that held installed files, deepest first, and only if empty.
list(REMOVE_DUPLICATES folders)
list(SORT folders ORDER DESCENDING)
foreach(folder IN LISTS folders)
  if(folder MATCHES "qel_util" AND IS_DIRECTORY "${folder}")
    file(GLOB left "${folder}/*")
    if(NOT left)
      file(REMOVE_RECURSE "${folder}")
    endif()
  endif()
endforeach()
