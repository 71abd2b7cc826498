# The command-line client of the pipe, in its two builds, and the benchmarks.
file(GLOB NORVANE_CTL CONFIGURE_DEPENDS tools/kioskctl/*.cpp)
foreach(build kioskctl kioskctl-dev)
  add_executable(${build} ${NORVANE_CTL} tools/kioskctl/kioskctl.rc)
  target_link_libraries(${build} PRIVATE kiosk)
  target_link_options(${build} PRIVATE -municode)
endforeach()
# The development build carries requests of anybody who runs it, so it is never signed with the product's key.
target_compile_definitions(kioskctl-dev PRIVATE NORVANE_DEVELOPMENT_COMMANDS)
program_that_ships(kioskctl)

file(GLOB NORVANE_BENCHMARKS CONFIGURE_DEPENDS bench/*_bench.cpp)
foreach(source ${NORVANE_BENCHMARKS})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} EXCLUDE_FROM_ALL ${source})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  target_include_directories(${name} SYSTEM PRIVATE ${NORVANE_LIBRARY_HEADERS})
  target_link_libraries(${name} PRIVATE kiosk)
  target_link_options(${name} PRIVATE $<$<STREQUAL:${name},service_bench>:-municode>)
  list(APPEND NORVANE_BENCHMARK_TARGETS ${name})
endforeach()
# Built like the product, so that its memory can be compared with it.
add_executable(empty_service EXCLUDE_FROM_ALL bench/empty_service.cpp)
target_link_libraries(empty_service PRIVATE kiosk)
add_custom_target(benchmarks DEPENDS ${NORVANE_BENCHMARK_TARGETS} empty_service)

# A client of the pipe for developers of a shell to copy from; it uses nothing of this tree but the sentences.
add_executable(shell_example examples/shell/shell_example.cpp)
target_link_libraries(shell_example PRIVATE advapi32 ssp)
configure_file(docs/messages.json ${CMAKE_BINARY_DIR}/messages.json COPYONLY)
