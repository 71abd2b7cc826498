// kiosk_proof: asks the Windows that it runs on what the tests promise of it. Without an option it changes nothing and
// says what it would do.
#include "tests/contract/contract.h"
#include "win32/handle.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using contract::Verdict;
using kiosk::win32::KernelHandle;

constexpr DWORD kGroupLimit = 120'000;  // ms
enum ExitCode : int { kNothingBroken = 0, kBroken = 1, kRefused = 2 };

int List() {
  std::printf(
      "With --contract each of these is asked, and with --contract GROUP those of a group. What a case makes "
      "(users, services, files, keys, a proxy) bears the name NorvaneProof or is put back at its end.\n");
  for (const contract::Group* group : contract::Groups()) {
    for (const contract::Case& each : group->cases) {
      std::printf("%s/%s: %s\n", group->name, each.name, each.promise);
    }
  }
  return kNothingBroken;
}

// One line for each case, flushed before the next begins, which may end the process.
int RunGroup(const contract::Group& group) {
  bool broken = false;
  for (const contract::Case& each : group.cases) {
    const contract::Result result = each.Run();
    broken = broken || result.verdict == Verdict::kBroken;
    std::printf("%-13s %s/%s%s%s\n", Name(result.verdict), group.name, each.name, result.why.empty() ? "" : ": ",
                result.why.c_str());
    static_cast<void>(std::fflush(stdout));
  }
  return broken ? kBroken : kNothingBroken;
}

// A group in a process of its own, so that a crash or a call that never ends costs no other group its answers.
int RunInChild(const contract::Group& group) {
  wchar_t self[1024];
  GetModuleFileNameW(nullptr, self, 1024);
  std::wstring command = L"\"" + std::wstring(self) + L"\" --group " + kiosk::win32::ToWide(group.name);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process) == 0) {
    std::printf("could not run %s: no process for it (%lu)\n", group.name, GetLastError());
    return kNothingBroken;
  }
  const KernelHandle thread(process.hThread);
  const KernelHandle child(process.hProcess);
  DWORD code = kNothingBroken;
  if (WaitForSingleObject(child.Get(), kGroupLimit) != WAIT_OBJECT_0) {
    TerminateProcess(child.Get(), 1);
    std::printf("could not run the rest of %s: it took longer than %lu s\n", group.name, kGroupLimit / 1000);
  } else if (GetExitCodeProcess(child.Get(), &code) == 0 || code > kBroken) {
    std::printf("could not run the rest of %s: its process ended with 0x%lX\n", group.name, code);
    return kNothingBroken;
  }
  return code == kBroken ? kBroken : kNothingBroken;
}

const contract::Group* Find(const char* name) {
  const auto groups = contract::Groups();
  const auto found = std::find_if(groups.begin(), groups.end(),
                                  [&](const contract::Group* each) { return std::strcmp(each->name, name) == 0; });
  return found != groups.end() ? *found : nullptr;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string option = count > 1 ? arguments[1] : "";
  const contract::Group* group = count > 2 ? Find(arguments[2]) : nullptr;
  if (option.empty()) {
    return List();
  }
  const bool child = option == "--group" && group != nullptr;
  if (count > 3 || (count > 2 && group == nullptr) || (option != "--contract" && !child)) {
    static_cast<void>(std::fprintf(stderr, "kiosk_proof: unknown option or group; without an option it lists them\n"));
    return kRefused;
  }
  if (child) {
    ExitProcess(static_cast<UINT>(RunGroup(*group)));
  }
  std::printf("asked of: %s\n", Name(contract::ThisPlatform()));
  int result = kNothingBroken;
  for (const contract::Group* each : contract::Groups()) {
    if (group == nullptr || group == each) {
      static_cast<void>(std::fflush(stdout));
      result = std::max(result, RunInChild(*each));
    }
  }
  return result;
}
