# The library as other projects see it: its public headers, its install tree and its use as a
# subdirectory.

# Every public header compiles alone, as C++17 and as C++20, with every warning an error: one
# generated source file per header and standard, each including only that header. Sanitizers
# change nothing here, so their builds skip it.
if(NOT PELLORIN_SANITIZE)
  file(GLOB PELLORIN_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/pellorin/*.h)
  foreach(standard 17 20)
    set(sources "")
    foreach(header ${PELLORIN_PUBLIC_HEADERS})
      get_filename_component(name ${header} NAME_WE)
      set(source ${PROJECT_BINARY_DIR}/header-check/cxx${standard}/${name}.cpp)
      file(CONFIGURE OUTPUT ${source} CONTENT "#include <pellorin/${name}.h>\n")
      list(APPEND sources ${source})
    endforeach()
    add_library(pellorin_header_check_cxx${standard} OBJECT ${sources})
    target_include_directories(pellorin_header_check_cxx${standard} PRIVATE ${PROJECT_SOURCE_DIR}/include)
    target_compile_options(pellorin_header_check_cxx${standard} PRIVATE -Wall -Wextra -Wpedantic -Werror)
    set_target_properties(pellorin_header_check_cxx${standard} PROPERTIES
      CXX_STANDARD ${standard} CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  endforeach()
endif()

# Installing and building against the install tree runs in the plain build only: a sanitized
# library would need its runtime in every example.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND PELLORIN_INSTALL AND TARGET pellorin_cli AND NOT PELLORIN_SANITIZE)
  # Three entries, each a few seconds: the CMake package, pkg-config and Python, add_subdirectory.
  set(package_cases
    "cmake_package\;Installed.test_installed_files_stand_alone\;Installed.test_cpp_example_with_the_cmake_package"
    "pkg_config_and_python\;Installed.test_c_example_with_pkg_config\;Installed.test_python_examples"
    "subdirectory\;Subdirectory")
  foreach(entry ${package_cases})
    list(POP_FRONT entry name)
    add_test(NAME package.${name}
             COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/test_install.py
                     --cmake ${CMAKE_COMMAND} --source-dir ${PROJECT_SOURCE_DIR}
                     --build-dir ${PROJECT_BINARY_DIR}
                     --cc ${CMAKE_C_COMPILER} --cxx ${CMAKE_CXX_COMPILER} ${entry})
    set_tests_properties(package.${name} PROPERTIES LABELS package TIMEOUT 600)
  endforeach()
endif()
