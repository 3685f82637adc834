# The C example host (examples/c) built from the tree as well, so that every configuration,
# the 32-bit and Windows ones included, compiles a C99 host against veltrano_c.h and links it
# with the library; with the tests it also runs: one exposure on the virtual sensor and the
# default chain. The fuzz build leaves it out: clang links a C program without the C++ part of
# UBSan's runtime that the instrumented library needs.
if(NOT TARGET FpdSys OR VELTRANO_FUZZ)
  return()
endif()
# The installed package has the virtual sensor's header in include/veltrano/.
set(_example_include ${PROJECT_BINARY_DIR}/example_include)
configure_file(virtual_sensor/virtual_sensor.h ${_example_include}/veltrano/virtual_sensor.h
               COPYONLY)
add_executable(veltrano_c_host examples/c/host.c)
set_target_properties(veltrano_c_host PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON
                                                 C_EXTENSIONS OFF)
veltrano_strict(veltrano_c_host)
if(NOT VELTRANO_MSVC_LIKE)
  target_compile_options(veltrano_c_host PRIVATE -pedantic)
endif()
target_include_directories(veltrano_c_host PRIVATE ${_example_include})
target_link_libraries(veltrano_c_host PRIVATE veltrano FpdSys)
if(VELTRANO_TESTS)
  # Paths relative to the bin folder, which the Windows builds' emulator reads as well.
  file(RELATIVE_PATH _chain ${PROJECT_BINARY_DIR}/bin ${PROJECT_SOURCE_DIR}/chains/default.chain)
  add_test(NAME c_host_example
           COMMAND veltrano_c_host c_host_work ${_chain} c_host_work/processed.raw
           WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
  set_tests_properties(c_host_example PROPERTIES TIMEOUT 120
    ENVIRONMENT VELTRANO_TIME_DIVISOR=${VELTRANO_TEST_TIME_DIVISOR}
    PASS_REGULAR_EXPRESSION "image acquired and processed, mean [0-9]")
endif()
