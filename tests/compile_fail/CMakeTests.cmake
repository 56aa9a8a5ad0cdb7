# Construction that only factories may do: each source is compiled (syntax only) twice. With
# CONTROL it calls the factory and must compile, which shows the include paths and the rest of
# the file are sound; without it it constructs directly and must not compile.
set(compile_fail_includes
    -I${CMAKE_SOURCE_DIR}/include -I${CMAKE_BINARY_DIR}/generated
    -I${CMAKE_SOURCE_DIR}/PellorinClient -I${CMAKE_SOURCE_DIR}/PellorinClient/Sources
    -I${CMAKE_SOURCE_DIR}/tools)
file(GLOB compile_fail_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
foreach(source ${compile_fail_sources})
  get_filename_component(name ${source} NAME_WE)
  set(command ${CMAKE_CXX_COMPILER} -std=c++20 -fsyntax-only ${compile_fail_includes} ${source})
  add_test(NAME CompileFail.${name}.FactoryCompiles COMMAND ${command} -DCONTROL)
  add_test(NAME CompileFail.${name}.DirectConstructionDoesNot COMMAND ${command})
  set_tests_properties(CompileFail.${name}.DirectConstructionDoesNot PROPERTIES WILL_FAIL TRUE)
endforeach()
