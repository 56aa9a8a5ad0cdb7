# The command-line host and the C interface.

# The host's pieces (journal, reservation reader, progress line) are tested inside tests_tools.
if(TARGET pellorin_host AND TARGET tests_tools)
  target_link_libraries(tests_tools PRIVATE pellorin_host)
endif()

# <pellorin/pellorin.h> must stay valid C: compiling one C file against it is the check.
add_library(pellorin_c_header_check OBJECT ${CMAKE_CURRENT_LIST_DIR}/CHeaderCheck.c)
target_include_directories(pellorin_c_header_check PRIVATE ${CMAKE_SOURCE_DIR}/include)
set_target_properties(pellorin_c_header_check PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON)

# End-to-end tests in Python (standard library only): the binary, and the C interface via ctypes.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND TARGET pellorin_cli)
  add_test(NAME cli.end_to_end
           COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/test_cli.py
                   --binary $<TARGET_FILE:pellorin_cli>)
  set_tests_properties(cli.end_to_end PROPERTIES TIMEOUT 120)
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
    add_test(NAME cli.c_interface
             COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/test_c_interface.py
                     --library $<TARGET_FILE:pellorin> --binary $<TARGET_FILE:pellorin_cli>)
    set_tests_properties(cli.c_interface PROPERTIES TIMEOUT 60
                         ENVIRONMENT "${c_interface_environment}")
  endif()
endif()
