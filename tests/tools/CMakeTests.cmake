# The command-line host and the C interface.

# The host's pieces (journal, reservation reader, progress line) are tested inside tests_tools.
if(TARGET pellorin_host AND TARGET tests_tools)
  target_link_libraries(tests_tools PRIVATE pellorin_host)
endif()

# <pellorin/pellorin.h> must stay valid C, down to C90: compiling one C file against it is the check.
add_library(pellorin_c_header_check OBJECT ${CMAKE_CURRENT_LIST_DIR}/CHeaderCheck.c)
target_include_directories(pellorin_c_header_check PRIVATE ${PROJECT_SOURCE_DIR}/include)
set_target_properties(pellorin_c_header_check PROPERTIES C_STANDARD 90 C_STANDARD_REQUIRED ON
                      C_EXTENSIONS OFF)

# End-to-end tests in Python: the binary (standard library only), and the Python module and the
# C interface through ctypes (pytest).
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND TARGET pellorin_cli)
  add_test(NAME cli.end_to_end
           COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/test_cli.py
                   --binary $<TARGET_FILE:pellorin_cli>)
  set_tests_properties(cli.end_to_end PROPERTIES TIMEOUT 120)
  # Out of threads: the binary run as an unprivileged user under a process limit.
  add_test(NAME cli.out_of_threads
           COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/test_limits.py
                   --binary $<TARGET_FILE:pellorin_cli>)
  set_tests_properties(cli.out_of_threads PROPERTIES TIMEOUT 60)
  # A sanitized shared library loads into the uninstrumented interpreter only with its runtime
  # preloaded; ThreadSanitizer's cannot be preloaded that way, so that build skips the test.
  set(c_interface_environment "")
  if(PELLORIN_SANITIZE MATCHES "address")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                    OUTPUT_VARIABLE asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libubsan.so
                    OUTPUT_VARIABLE ubsan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    # The interpreter's own allocations are not this library's leaks.
    set(c_interface_environment "LD_PRELOAD=${asan_runtime} ${ubsan_runtime};ASAN_OPTIONS=detect_leaks=0")
  endif()
  if(NOT PELLORIN_SANITIZE OR c_interface_environment)
    # The Python module (python/) and the C interface called through its ctypes declarations,
    # with pytest: the found interpreter when it has pytest, else the system's (where the
    # distribution's python3-pytest lives).
    set(pytest_interpreter "")
    foreach(candidate ${Python3_EXECUTABLE} /usr/bin/python3)
      if(NOT pytest_interpreter AND EXISTS ${candidate})
        execute_process(COMMAND ${candidate} -c "import pytest" RESULT_VARIABLE no_pytest
                        OUTPUT_QUIET ERROR_QUIET)
        if(NOT no_pytest)
          set(pytest_interpreter ${candidate})
        endif()
      endif()
    endforeach()
    if(pytest_interpreter)
      add_test(NAME python.module
               COMMAND ${pytest_interpreter} -m pytest -q -p no:cacheprovider
                       ${PROJECT_SOURCE_DIR}/python/tests)
      set_tests_properties(python.module PROPERTIES TIMEOUT 60 ENVIRONMENT
        "PELLORIN_LIBRARY=$<TARGET_FILE:pellorin>;PELLORIN_BINARY=$<TARGET_FILE:pellorin_cli>;${c_interface_environment}")
    else()
      message(STATUS "pytest not found: the Python module's and the C interface's tests are left out")
    endif()
  endif()
endif()
