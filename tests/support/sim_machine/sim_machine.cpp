// The hand on the simulated computer, for end-to-end tests and demonstrations: sim_machine COMMAND [ARGUMENT...], with
// the commands of sim/computer.h, or "dump", or "import-certificate FILE": a PKCS #12 file with the password "test"
// into the computer's personal store, or "crash PROCESS PLACE": that program calls the function that begins so many
// bytes (hexadecimal) behind its own beginning, with an address of nothing; or "hold FILE": keeps texts of the event
// log open as its viewer does, until the input ends. Prints what the command returns. A service that runs hears of
// sessions.
#include "sim/computer.h"

#include "win32/handle.h"
#include "win32/owners.h"

#include <psapi.h>

#include <cstdio>
#include <cwchar>
#include <iterator>
#include <vector>

namespace {

using kiosk::win32::CertStore;
using kiosk::win32::Library;

DWORD ImportCertificate(const wchar_t* path) {
  std::vector<BYTE> bytes(65536);
  std::FILE* file = _wfopen(path, L"rb");
  if (file == nullptr) {
    return ERROR_FILE_NOT_FOUND;
  }
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
  static_cast<void>(std::fclose(file));
  CRYPT_DATA_BLOB blob{static_cast<DWORD>(bytes.size()), bytes.data()};
  // A key of this user: Wine, where the service runs as the same, does not find those of the computer.
  const CertStore from(PFXImportCertStore(&blob, L"test", CRYPT_EXPORTABLE));
  const CertStore to(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"MY"));
  if (!from || !to) {
    return GetLastError();
  }
  for (const CERT_CONTEXT* each = nullptr; (each = CertEnumCertificatesInStore(from.Get(), each)) != nullptr;) {
    if (CertAddCertificateContextToStore(to.Get(), each, CERT_STORE_ADD_REPLACE_EXISTING, nullptr) == 0) {
      return GetLastError();
    }
  }
  return ERROR_SUCCESS;
}

DWORD Crash(const wchar_t* id, const wchar_t* place) {
  const kiosk::win32::KernelHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, std::wcstoul(id, nullptr, 10)));
  HMODULE program = nullptr;
  DWORD size = 0;
  if (!process || EnumProcessModules(process.Get(), &program, sizeof(HMODULE), &size) == 0) {
    return GetLastError();
  }
  auto* const function = reinterpret_cast<BYTE*>(program) + std::wcstoul(place, nullptr, 16);
  const kiosk::win32::KernelHandle thread(CreateRemoteThread(
      process.Get(), nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(function), nullptr, 0, nullptr));
  return thread ? ERROR_SUCCESS : GetLastError();
}

void Hold(const wchar_t* path) {
  const Library texts(LoadLibraryExW(path, nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  std::printf("%lu\n", texts ? ERROR_SUCCESS : GetLastError());
  static_cast<void>(std::fflush(stdout));
  static_cast<void>(std::getchar());
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  std::wstring command;
  for (int i = 1; i < count; ++i) {
    command.append(i == 1 ? L"" : L" ").append(arguments[i]);
  }
  if (count == 3 && std::wcscmp(arguments[1], L"import-certificate") == 0) {
    std::printf("%lu\n", ImportCertificate(arguments[2]));
  } else if (count == 4 && std::wcscmp(arguments[1], L"crash") == 0) {
    std::printf("%lu\n", Crash(arguments[2], arguments[3]));
  } else if (count == 3 && std::wcscmp(arguments[1], L"hold") == 0) {
    Hold(arguments[2]);
  } else if (command == L"dump") {
    static_cast<void>(std::fputs(sim::DumpMachine().c_str(), stdout));
  } else {
    std::printf("%lu\n", sim::RunMachineCommand(command));
  }
  return 0;
}
