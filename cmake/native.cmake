# The portable parts on this machine: tests under ASan and UBSan, and the fuzz targets.
add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
add_link_options(-fsanitize=address,undefined)

add_library(kiosk_portable STATIC ${NORVANE_PORTABLE})

file(GLOB NORVANE_PORTABLE_TESTS CONFIGURE_DEPENDS tests/portable/*_test.cpp)
list(FILTER NORVANE_PORTABLE_TESTS EXCLUDE REGEX json_wipe_test)
add_executable(portable_tests ${NORVANE_PORTABLE_TESTS})
target_include_directories(portable_tests PRIVATE ${CMAKE_SOURCE_DIR})
target_include_directories(portable_tests SYSTEM PRIVATE ${NORVANE_LIBRARY_HEADERS})
target_link_libraries(portable_tests PRIVATE kiosk_portable gtest gtest_main)
gtest_discover_tests(portable_tests)

# Replaces the global allocation functions, so it is a program of its own.
add_executable(json_wipe_test tests/portable/json_wipe_test.cpp)
target_link_libraries(json_wipe_test PRIVATE kiosk_portable gtest gtest_main)
gtest_discover_tests(json_wipe_test)

# Fuzz targets want the coverage instrumentation in the code under test too.
file(GLOB NORVANE_FUZZERS CONFIGURE_DEPENDS fuzz/*_fuzz.cpp)
foreach(source ${NORVANE_FUZZERS})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source} ${NORVANE_PORTABLE})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  target_include_directories(${name} SYSTEM PRIVATE ${NORVANE_LIBRARY_HEADERS})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endforeach()
