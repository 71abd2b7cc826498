// Clients of the service's pipe as nobody wants them, a thousand at once out of one program, for
// tests/e2e/test_crowd.py:
//
//   crowd KIND CLIENTS SECONDS PAUSE      so many connections; one that the service has ended comes again PAUSE seconds
//                                         later. KIND: silent, drip (a byte now and then), unread (asks and never
//                                         reads), ask. At the end the process is killed, with all that it has open
//   crowd swarm PROCESSES KIND CLIENTS SECONDS PAUSE
//                                         so many processes of these; prints how many there are, and kills them at the
//                                         end of its standard input
//   crowd row REQUESTS                    one "status" after the other; prints how many were answered
//   crowd honest SECONDS                  "status" every 100 ms; prints for each how long its answer took, in ms, or
//                                         "none"
//   crowd handles                         prints how many handles the service has open
//
// Exit codes: 0 done, 1 the service is not there, 2 usage.
#include "tests/support/handle_count.h"
#include "tests/support/pipe_exchange.h"
#include "win32/program_path.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using kiosk::test::ConnectToService;
using kiosk::win32::Deadline;
using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;

constexpr char kStatus[] = "{\"cmd\":\"status\"}\n";
constexpr DWORD kBetweenHonest = 100;

DWORD Number(const std::string& text) { return static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10)); }

// One after the other is looked at, so that a single thread plays all of them.
int Crowd(const std::string& kind, DWORD count, DWORD seconds, DWORD pause) {
  const bool asks = kind == "unread" || kind == "ask";
  std::vector<FileHandle> clients(count);
  const Deadline end(seconds * 1000ULL);
  while (!end.Passed()) {
    for (FileHandle& each : clients) {
      DWORD there = 0;
      const bool open = each && PeekNamedPipe(each.Get(), nullptr, 0, nullptr, &there, nullptr) != 0;
      if (!open || (kind == "ask" && there != 0)) {
        each = ConnectToService();
        kiosk::test::Send(each.Get(), asks ? kStatus : "");
      } else if (kind == "drip") {
        kiosk::test::Send(each.Get(), " ");
      }
      if (end.Passed()) {
        break;
      }
    }
    Sleep(pause * 1000);
  }
  return TerminateProcess(GetCurrentProcess(), 0);
}

int Swarm(DWORD processes, const std::string& rest) {
  const std::wstring program = kiosk::win32::ProgramPath();
  std::wstring line = L"crowd " + std::wstring(rest.begin(), rest.end());
  std::vector<KernelHandle> started;
  for (DWORD i = 0; i < processes; ++i) {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &process)) {
      started.emplace_back(process.hProcess);
      KernelHandle(process.hThread).Reset();
    }
  }
  std::printf("%zu\n", started.size());
  static_cast<void>(std::fflush(stdout));
  while (std::getchar() != EOF) {
  }
  for (const KernelHandle& each : started) {
    TerminateProcess(each.Get(), 0);
  }
  return 0;
}

bool Answered() { return kiosk::test::Exchange(kStatus).starts_with("{\"ok\":true,"); }

int Row(DWORD requests) {
  DWORD answered = 0;
  for (DWORD i = 0; i < requests; ++i) {
    answered += Answered() ? 1 : 0;
  }
  std::printf("%lu\n", answered);
  return 0;
}

int Honest(DWORD seconds) {
  const Deadline end(seconds * 1000ULL);
  while (!end.Passed()) {
    const Deadline next(kBetweenHonest);
    const std::uint64_t start = kiosk::win32::PreciseFileTimeNow();
    const bool answered = Answered();
    const std::uint64_t took = kiosk::win32::PreciseFileTimeNow() - start;
    if (answered) {
      std::printf("%.1f\n", static_cast<double>(took) / kiosk::win32::kFileTimeMillisecond);
    } else {
      std::puts("none");
    }
    Sleep(next.Left());
  }
  return 0;
}

int Handles() {
  const FileHandle pipe = ConnectToService();
  ULONG service = 0;
  if (GetNamedPipeServerProcessId(pipe.Get(), &service) == 0) {
    return 1;
  }
  std::printf("%td\n", kiosk::test::HandlesOf(service));
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  const std::string kind = words.empty() ? "" : words[0];
  if (kind == "swarm" && words.size() == 6) {
    return Swarm(Number(words[1]), words[2] + " " + words[3] + " " + words[4] + " " + words[5]);
  }
  if (kind == "row" && words.size() == 2) {
    return Row(Number(words[1]));
  }
  if (kind == "honest" && words.size() == 2) {
    return Honest(Number(words[1]));
  }
  if (kind == "handles") {
    return Handles();
  }
  return words.size() == 4 ? Crowd(kind, Number(words[1]), Number(words[2]), Number(words[3])) : 2;
}
