# Test programs: most of their build time went into parsing the test framework's headers
# again for every file and optimising test bodies that run once. The headers are parsed
# once per program and the bodies are built unoptimised; the code under test keeps the
# build's optimisation.
function(vesk_test_program target)
  vesk_warnings(${target})
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-O0>)
  target_precompile_headers(${target} PRIVATE <gtest/gtest.h> ${ARGN} <string> <vector>
    <memory> <functional> <algorithm> <atomic> <chrono> <thread> <fstream>)
endfunction()
