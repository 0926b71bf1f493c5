# Installs the build BUILD_DIR, then moves the installation to PREFIX, as the package of a
# distribution does: no installed file may depend on its first location.
set(first_prefix ${PREFIX}-first)
file(REMOVE_RECURSE ${PREFIX} ${first_prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${first_prefix}
  COMMAND_ERROR_IS_FATAL ANY)
file(RENAME ${first_prefix} ${PREFIX})

file(GLOB_RECURSE files ${PREFIX}/*.h ${PREFIX}/*.cmake ${PREFIX}/*.pc)
if(NOT files)
  message(FATAL_ERROR "No headers and no package files are installed")
endif()
foreach(file IN LISTS files)
  file(READ ${file} content)
  foreach(directory ${SOURCE_DIR} ${BUILD_DIR})
    string(FIND "${content}" "${directory}" position)
    if(NOT position EQUAL -1)
      message(SEND_ERROR "${file} names ${directory}")
    endif()
  endforeach()
endforeach()
