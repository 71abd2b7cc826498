// The round trip of "status" against that of a bare echo pipe, what the check of a caller's signature costs, and how
// long the service takes to begin and to end beside one that does nothing.
//
//   service_bench echo            serves the echo pipe until it is ended
//   service_bench measure FILE    measures against the service and the echo server, both running
//   service_bench once            serves and asks once in this process, for a trace of the Windows calls
//   service_bench life            starts and stops the service and NorvaneEmpty in turns, both installed and stopped
#include "bench/bench.h"
#include "pipe/server.h"
#include "pipe/service_signer.h"
#include "pipe/signature.h"
#include "win32/handle.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using kiosk::win32::FileHandle;

constexpr wchar_t kEchoPipe[] = L"\\\\.\\pipe\\NorvaneBenchEcho";
constexpr std::string_view kRequest = "{\"cmd\":\"status\"}\n";

// What any pipe server does at the least for one connection.
void ServeEcho() {
  while (true) {
    const FileHandle pipe(CreateNamedPipeW(kEchoPipe, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, PIPE_UNLIMITED_INSTANCES,
                                           8192, 8192, 0, nullptr));
    if (ConnectNamedPipe(pipe.Get(), nullptr) == 0 && GetLastError() != ERROR_PIPE_CONNECTED) {
      continue;
    }
    std::array<char, 1024> buffer;
    DWORD moved = 0;
    if (ReadFile(pipe.Get(), buffer.data(), buffer.size(), &moved, nullptr) != 0) {
      WriteFile(pipe.Get(), buffer.data(), moved, &moved, nullptr);
      FlushFileBuffers(pipe.Get());
    }
    DisconnectNamedPipe(pipe.Get());
  }
}

bool RoundTrip(const wchar_t* name) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    const FileHandle pipe(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!pipe) {
      if (WaitNamedPipeW(name, 1000) == 0) {
        Sleep(10);  // not there yet
      }
      continue;
    }
    std::array<char, 1024> buffer;
    DWORD moved = 0;
    return WriteFile(pipe.Get(), kRequest.data(), static_cast<DWORD>(kRequest.size()), &moved, nullptr) != 0 &&
           ReadFile(pipe.Get(), buffer.data(), buffer.size(), &moved, nullptr) != 0 && buffer[moved - 1] == '\n';
  }
  return false;
}

void RequireRoundTrip(const wchar_t* name) {
  if (!RoundTrip(name)) {
    std::puts("a round trip failed");
    std::exit(1);
  }
}

void Measure(const wchar_t* signedFile) {
  const auto times = kiosk::bench::Measure(
      15, 40, {[] { RequireRoundTrip(kiosk::pipe::kPipeName); }, [] { RequireRoundTrip(kEchoPipe); }});
  kiosk::bench::Row("status over the pipe", times[0], {"echo pipe", times[1]}, kiosk::bench::TimesWorse(5));
  bool trusted = false;
  const auto check = kiosk::bench::Measure(9, 5, {[signedFile, &trusted] {
                                             const FileHandle image = kiosk::pipe::HoldImage(signedFile);
                                             trusted =
                                                 image && kiosk::pipe::TrustedPublisherOfFile(signedFile, image.Get());
                                           }});
  std::printf("The check of a caller's signature takes %s%s.\n", kiosk::bench::Text(check[0]).c_str(),
              trusted ? "" : ", but the file is NOT validly signed");
}

int Once() {
  kiosk::win32::CreateStopEvent();
  kiosk::pipe::LearnServiceSigner();
  const auto server = kiosk::win32::StartThread([]() noexcept { kiosk::pipe::RunPipeServer(); });
  const auto askOnce = [] {
    RequireRoundTrip(kiosk::pipe::kPipeName);
    while (kiosk::pipe::LiveConnections() > 0) {
      Sleep(10);
    }
    Sleep(100);  // for the little that a connection does after it is not counted any more
  };
  askOnce();  // the first one also initialises
  OutputDebugStringA("trace begins");
  askOnce();
  OutputDebugStringA("trace ends");
  kiosk::win32::RequestStop();
  WaitForSingleObject(server.Get(), INFINITE);
  return 0;
}

SC_HANDLE Open(SC_HANDLE manager, const wchar_t* name) {
  const SC_HANDLE service = OpenServiceW(manager, name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
  if (service == nullptr) {
    (void)std::printf("cannot open %ls (%lu)\n", name, GetLastError());
    std::exit(1);
  }
  return service;
}

void WaitFor(SC_HANDLE service, DWORD state) {
  SERVICE_STATUS status{};
  for (int i = 0; QueryServiceStatus(service, &status) != 0 && status.dwCurrentState != state; ++i) {
    if (i == 30'000) {
      std::puts("a service does not get where it should");
      std::exit(1);
    }
    Sleep(1);
  }
}

void Start(SC_HANDLE service) {
  if (StartServiceW(service, 0, nullptr) == 0) {
    (void)std::printf("a service does not start (%lu)\n", GetLastError());
    std::exit(1);
  }
  WaitFor(service, SERVICE_RUNNING);
}

void Stop(SC_HANDLE service) {
  SERVICE_STATUS status{};
  ControlService(service, SERVICE_CONTROL_STOP, &status);
  WaitFor(service, SERVICE_STOPPED);
}

void MeasureLife() {
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);  // open until the end, as the others
  const SC_HANDLE ours = Open(manager, L"NorvaneKiosk");
  const SC_HANDLE empty = Open(manager, L"NorvaneEmpty");
  const auto times =
      kiosk::bench::Measure(9, 1,
                            {[ours] {
                               Start(ours);
                               RequireRoundTrip(kiosk::pipe::kPipeName);
                             },
                             [ours] { Stop(ours); }, [empty] { Start(empty); }, [empty] { Stop(empty); }});
  kiosk::bench::Row("start to the first answer", times[0], {"empty service", times[2]}, kiosk::bench::TimesWorse(1.5));
  kiosk::bench::Row("stop", times[1], {"empty service", times[3]}, kiosk::bench::TimesWorse(1.5));
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  const std::wstring_view mode = count > 1 ? arguments[1] : L"";
  if (mode == L"echo") {
    ServeEcho();
  } else if (mode == L"once") {
    return Once();
  } else if (mode == L"life") {
    MeasureLife();
    return 0;
  } else if (mode == L"measure" && count > 2) {
    Measure(arguments[2]);
    return 0;
  }
  return 2;
}
