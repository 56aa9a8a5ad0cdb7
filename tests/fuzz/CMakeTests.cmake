# Replays each libFuzzer target's seed corpus (tests/fuzz/corpus/<name>/) through a plain main(),
# so that every preset runs the targets' checks, under its own sanitizers, on the inputs kept in
# the repository. Fuzzing proper (clang with libFuzzer) is bench/fuzz.
file(GLOB FUZZ_TARGET_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/fuzz_*.cpp)
foreach(source ${FUZZ_TARGET_SOURCES})
  get_filename_component(target ${source} NAME_WE)
  string(REGEX REPLACE "^fuzz_" "" name ${target})
  add_executable(${target}_corpus ${source} ${CMAKE_CURRENT_LIST_DIR}/CorpusDriver.cpp)
  target_link_libraries(${target}_corpus PRIVATE pellorin_static)
  if(TARGET pellorin_host)
    target_link_libraries(${target}_corpus PRIVATE pellorin_host)
  endif()
  add_test(NAME FuzzCorpus.${name}
           COMMAND ${target}_corpus ${CMAKE_CURRENT_LIST_DIR}/corpus/${name})
  set_tests_properties(FuzzCorpus.${name} PROPERTIES TIMEOUT 120)
endforeach()
