// The hand on the simulated computer, for end-to-end tests and demonstrations: sim_machine COMMAND [ARGUMENT...], with
// the commands of sim/computer.h, or "dump". Prints what the command returns. A service that runs hears of sessions.
#include "sim/computer.h"

#include <cstdio>

int wmain(int count, wchar_t** arguments) {
  std::wstring command;
  for (int i = 1; i < count; ++i) {
    command.append(i == 1 ? L"" : L" ").append(arguments[i]);
  }
  if (command == L"dump") {
    static_cast<void>(std::fputs(sim::DumpMachine().c_str(), stdout));
  } else {
    std::printf("%lu\n", sim::RunMachineCommand(command));
  }
  return 0;
}
