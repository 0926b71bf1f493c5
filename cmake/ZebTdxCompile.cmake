# Warnings and sanitizers for the targets of this project. They are private to each target, so that
# a host that links the library never inherits a warning flag.

# zebtdx_compile_options(TARGET): sets the options of every target of this project.
function(zebtdx_compile_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion)
  if(ZEBTDX_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  target_compile_definitions(${target} PRIVATE
    QT_NO_KEYWORDS QT_NO_CAST_TO_ASCII QT_NO_CAST_FROM_BYTEARRAY)
  if(ZEBTDX_SANITIZE)
    string(REPLACE ";" "," sanitizers "${ZEBTDX_SANITIZE}")
    target_compile_options(${target} PRIVATE -fsanitize=${sanitizers} -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${sanitizers})
    if("undefined" IN_LIST ZEBTDX_SANITIZE)
      # A finding must end the test that made it; otherwise it goes unnoticed.
      target_compile_options(${target} PRIVATE -fno-sanitize-recover=all)
    endif()
  endif()
endfunction()

# zebtdx_check_locks(TARGET): compiles the target with Clang's thread-safety analysis, in which any
# finding is an error. The header with the attributes comes before all others, so that Qt's locks
# are known as locks; see docs/LOCKING.md.
function(zebtdx_check_locks target)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ZEBTDX_CHECK_LOCKS needs Clang, not ${CMAKE_CXX_COMPILER_ID}")
  endif()
  target_compile_definitions(${target} PRIVATE ZEBTDX_CHECK_LOCKS)
  target_compile_options(${target} PRIVATE
    -include ${PROJECT_SOURCE_DIR}/support/ZebThreadSafety.h
    -Wthread-safety -Wthread-safety-beta -Werror=thread-safety -Werror=thread-safety-beta)
endfunction()
