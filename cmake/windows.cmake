# The product, its tools, and the tests that run under Wine.
enable_language(RC)
add_compile_definitions(
  UNICODE _UNICODE WINVER=0x0A00 _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000006
  __USE_MINGW_ANSI_STDIO=1 _FORTIFY_SOURCE=2)
add_compile_options(-fstack-protector-strong -ffunction-sections -fdata-sections)
add_link_options(-static -Wl,--gc-sections -Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  link_libraries(pthread)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_link_options($<$<AND:$<CONFIG:Release>,$<NOT:$<BOOL:$<TARGET_PROPERTY:SHIPS>>>>:-s>)
endif()

# The texts of the entries in Windows' event log: their numbers for the compiler, and a library without code. Whoever shows
# entries keeps the library open for long, so its name changes with the texts, and with nothing else.
set(NORVANE_EVENTS ${CMAKE_SOURCE_DIR}/src/log/event_messages.mc)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${NORVANE_EVENTS})
file(SHA256 ${NORVANE_EVENTS} digest)
string(SUBSTRING ${digest} 0 8 digest)
set(NORVANE_EVENT_LIBRARY NorvaneKioskEvents-${digest}.dll)
file(GLOB former ${CMAKE_BINARY_DIR}/NorvaneKioskEvents-*.dll)
foreach(library IN LISTS former)
  if(NOT library MATCHES ${digest})
    file(REMOVE ${library})
  endif()
endforeach()
set(made ${CMAKE_BINARY_DIR}/events)
file(MAKE_DIRECTORY ${made})
add_custom_command(
  OUTPUT ${made}/event_messages.h ${CMAKE_BINARY_DIR}/${NORVANE_EVENT_LIBRARY}
  COMMAND ${NORVANE_WINDMC} ${NORVANE_EVENTS}
  COMMAND ${CMAKE_RC_COMPILER} event_messages.rc event_messages.o
  COMMAND ${NORVANE_LD} -s --dll --entry=0 --no-insert-timestamp -o ${CMAKE_BINARY_DIR}/${NORVANE_EVENT_LIBRARY} event_messages.o
  DEPENDS ${NORVANE_EVENTS}
  WORKING_DIRECTORY ${made}
  VERBATIM)
add_custom_target(NorvaneKioskEvents ALL DEPENDS ${made}/event_messages.h ${CMAKE_BINARY_DIR}/${NORVANE_EVENT_LIBRARY})
include_directories(SYSTEM ${made})

# In DWARF 4, the newest that the debugger reads from a dump's side.
function(with_symbols target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -g -gdwarf-4 -ffile-prefix-map=${CMAKE_SOURCE_DIR}=/norvane)
  endif()
endfunction()

# A program that ships. Its symbols go into a file beside it, which has the same build id: with them a dump of the stripped
# program becomes functions and lines (tools/release/stack). The linker's map tells what of others is in it
# (tools/release/bill.py).
function(program_that_ships target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set_target_properties(${target} PROPERTIES SHIPS TRUE)
    with_symbols(${target})
    target_link_options(${target} PRIVATE -Wl,--build-id -Wl,-Map=$<TARGET_FILE:${target}>.map)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${NORVANE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
      COMMAND ${NORVANE_OBJCOPY} --strip-all $<TARGET_FILE:${target}>
      VERBATIM)
  endif()
endfunction()

# Everything but main: what the tests link is what ships.
file(GLOB_RECURSE NORVANE_SOURCES CONFIGURE_DEPENDS src/*.cpp)
list(REMOVE_ITEM NORVANE_SOURCES ${CMAKE_SOURCE_DIR}/src/service/main.cpp)
add_library(kiosk STATIC ${NORVANE_SOURCES})
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Which variable needs which lock (win32/thread_safety.h). The tests reach behind the locks.
  target_compile_options(kiosk PRIVATE -Wthread-safety)
endif()
with_symbols(kiosk)
target_compile_definitions(kiosk PRIVATE NORVANE_AUTH_BASE_URL="${NORVANE_AUTH_BASE_URL}"
  NORVANE_EVENT_LIBRARY="${NORVANE_EVENT_LIBRARY}")
add_dependencies(kiosk NorvaneKioskEvents)
set(NORVANE_SYSTEM_LIBRARIES advapi32 bcrypt crypt32 iphlpapi netapi32 ole32 oleaut32 powrprof taskschd user32 userenv wbemuuid wintrust
    winhttp wtsapi32 ws2_32 ssp)
# ntdll has functions of the C library, too, which are not to come from there.
list(APPEND NORVANE_SYSTEM_LIBRARIES mingwex msvcrt ntdll)
target_link_libraries(kiosk PUBLIC ${NORVANE_SYSTEM_LIBRARIES})

add_executable(NorvaneKiosk src/service/main.cpp src/service/kiosk.rc)
target_link_libraries(NorvaneKiosk PRIVATE kiosk)
target_link_options(NorvaneKiosk PRIVATE -municode)
program_that_ships(NorvaneKiosk)
include(cmake/tools.cmake)

# The simulated Windows: copies of the library, the tests and main whose calls into Windows are renamed to those of sim/.
# Headers have inline functions that call Windows, so whoever includes them is renamed as well.
if(BUILD_TESTING)
  # parse_once(LIBRARY [HEADER...]): its files share one parse of the headers that most of them include. For the first
  # compiler alone: under the second each file has to include what it uses. GCC forgets which of these are the system's, and
  # then warns of what std::wstring does.
  function(parse_once library)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_precompile_headers(${library} PRIVATE ${CMAKE_SOURCE_DIR}/src/win32/winapi.h <algorithm> <functional> <map>
        <optional> <string> <vector> ${ARGN})
      target_compile_options(${library} PRIVATE -Wno-array-bounds -Wno-stringop-overread -Wno-stringop-overflow)
    endif()
  endfunction()

  file(GLOB NORVANE_SIM CONFIGURE_DEPENDS sim/*.cpp)
  add_library(kiosk_simulation STATIC ${NORVANE_SIM})
  target_include_directories(kiosk_simulation PRIVATE ${CMAKE_SOURCE_DIR})
  parse_once(kiosk_simulation)

  add_library(kiosk_entry STATIC src/service/main.cpp)
  file(GLOB NORVANE_TESTS CONFIGURE_DEPENDS tests/*_test.cpp tests/portable/*_test.cpp tests/support/*.cpp)
  list(FILTER NORVANE_TESTS EXCLUDE REGEX json_wipe_test)
  add_library(kiosk_test_cases STATIC ${NORVANE_TESTS})
  target_include_directories(kiosk_test_cases PRIVATE ${CMAKE_SOURCE_DIR})
  target_include_directories(kiosk_test_cases SYSTEM PRIVATE ${NORVANE_LIBRARY_HEADERS})
  target_link_libraries(kiosk_test_cases PRIVATE gtest)
  add_dependencies(kiosk_test_cases NorvaneKioskEvents)

  # What Windows promises, asked of the simulation and, not renamed, of what is there; and the kit around the cases, without
  # what has two implementations or must not be renamed.
  file(GLOB NORVANE_CONTRACT CONFIGURE_DEPENDS tests/contract/*.cpp)
  file(GLOB NORVANE_PROOF CONFIGURE_DEPENDS tools/proof/*.cpp)
  list(FILTER NORVANE_CONTRACT EXCLUDE REGEX hand_)
  list(FILTER NORVANE_PROOF EXCLUDE REGEX "hand_|agent_service")
  add_library(kiosk_contract STATIC ${NORVANE_CONTRACT})
  add_library(kiosk_proof_kit STATIC ${NORVANE_PROOF} tools/kioskctl/pipe_client.cpp)
  target_include_directories(kiosk_contract PRIVATE ${CMAKE_SOURCE_DIR})
  target_include_directories(kiosk_proof_kit PRIVATE ${CMAKE_SOURCE_DIR})

  file(GLOB NORVANE_SOAK CONFIGURE_DEPENDS tests/soak/*.cpp)
  add_library(kiosk_soak_parts STATIC ${NORVANE_SOAK} tests/support/fixture.cpp tests/support/terminal.cpp)
  target_include_directories(kiosk_soak_parts PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kiosk_soak_parts PRIVATE gtest)

  # Nobody waits for a test's own code, but for its compilation.
  foreach(library kiosk_test_cases kiosk_contract kiosk_proof_kit kiosk_soak_parts)
    target_compile_options(${library} PRIVATE -O1)
    parse_once(${library} $<$<STREQUAL:${library},kiosk_test_cases>:<gtest/gtest.h$<ANGLE-R>>)
  endforeach()

  set(renamed_pairs)
  set(renamed)
  set(NORVANE_RENAMED kiosk kiosk_entry kioskctl_parts kiosk_test_cases kiosk_contract kiosk_proof_kit kiosk_soak_parts)
  foreach(library ${NORVANE_RENAMED})
    set(renamed_${library} ${CMAKE_BINARY_DIR}/lib${library}_sim.a)
    list(APPEND renamed ${renamed_${library}})
    list(APPEND renamed_pairs $<TARGET_FILE:${library}> ${renamed_${library}})
  endforeach()
  add_custom_command(
    OUTPUT ${renamed}
    COMMAND ${CMAKE_SOURCE_DIR}/tools/build/sim_symbols.sh ${NORVANE_NM} ${NORVANE_OBJCOPY}
            $<TARGET_FILE:kiosk_simulation> ${renamed_pairs}
    DEPENDS ${NORVANE_RENAMED} kiosk_simulation ${CMAKE_SOURCE_DIR}/tools/build/sim_symbols.sh
    VERBATIM)
  add_custom_target(renamed DEPENDS ${renamed})

  # Links `target` with renamed archives and with the simulation, all whole: COM classes and what hears of
  # sessions register themselves when the program starts, and nothing else may refer to them.
  function(link_simulated target)
    add_dependencies(${target} renamed)
    target_link_libraries(${target} PRIVATE
      -Wl,--whole-archive ${ARGN} kiosk_simulation -Wl,--no-whole-archive
      ${renamed_kiosk} ${NORVANE_SYSTEM_LIBRARIES})
  endfunction()

  add_executable(NorvaneKioskSim src/service/kiosk.rc)
  set_target_properties(NorvaneKioskSim PROPERTIES LINKER_LANGUAGE CXX)
  target_link_options(NorvaneKioskSim PRIVATE -municode)
  link_simulated(NorvaneKioskSim ${renamed_kiosk_entry})

  # Of the kit what its test uses, and what that in turn needs.
  add_executable(kiosk_tests tests/support/run_tests.cc tests/contract/hand_simulated.cpp)
  target_include_directories(kiosk_tests PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kiosk_tests PRIVATE gtest)
  link_simulated(kiosk_tests ${renamed_kiosk_test_cases})
  target_link_libraries(kiosk_tests PRIVATE ${renamed_kiosk_proof_kit} ${renamed_kiosk_contract} ${renamed_kioskctl_parts}
    ${renamed_kiosk} ${NORVANE_SYSTEM_LIBRARIES})
  add_dependencies(kiosk_tests NorvaneKioskSim)  # a test has it uninstalled
  gtest_discover_tests(kiosk_tests DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600)

  add_executable(kiosk_proof tests/contract/hand_windows.cpp tools/proof/hand_windows.cpp tools/proof/agent_service.cpp)
  target_link_options(kiosk_proof PRIVATE -municode)
  target_include_directories(kiosk_proof PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(kiosk_proof PRIVATE -Wl,--whole-archive kiosk_contract kiosk_proof_kit -Wl,--no-whole-archive kiosk
    newdev setupapi)

  add_executable(kiosk_proof_sim tests/contract/hand_simulated.cpp tools/proof/hand_simulated.cpp
    tools/proof/agent_service.cpp)
  target_link_options(kiosk_proof_sim PRIVATE -municode)
  target_include_directories(kiosk_proof_sim PRIVATE ${CMAKE_SOURCE_DIR})
  link_simulated(kiosk_proof_sim ${renamed_kiosk_contract} ${renamed_kiosk_proof_kit})

  # Random months of a terminal on virtual time.
  add_executable(kiosk_soak src/service/kiosk.rc)
  set_target_properties(kiosk_soak PROPERTIES LINKER_LANGUAGE CXX)
  link_simulated(kiosk_soak ${renamed_kiosk_soak_parts})
  target_link_libraries(kiosk_soak PRIVATE gtest)  # behind those who use it

  # Callers of the pipe for the end-to-end tests, which sign them in many ways: one, and a crowd.
  foreach(caller pipe_client crowd)
    add_executable(${caller} tests/support/${caller}/${caller}.cpp)
    target_include_directories(${caller} PRIVATE ${CMAKE_SOURCE_DIR})
    target_link_libraries(${caller} PRIVATE kiosk)
  endforeach()

  # The hand on the simulated computer: signs people in and out, restarts it, tells what it is like.
  add_executable(sim_machine tests/support/sim_machine/sim_machine.cpp)
  target_include_directories(sim_machine PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_options(sim_machine PRIVATE -municode)
  target_link_libraries(sim_machine PRIVATE kiosk_simulation ${NORVANE_SYSTEM_LIBRARIES})

  # Replaces the global allocation functions, so it is a program of its own.
  add_executable(json_wipe_test tests/portable/json_wipe_test.cpp)
  target_link_libraries(json_wipe_test PRIVATE kiosk gtest gtest_main)
  gtest_discover_tests(json_wipe_test DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 400)
endif()
