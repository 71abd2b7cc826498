// The hand over a real Windows, or Wine.
#include <winsock2.h>

#include <ws2tcpip.h>

#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <cfgmgr32.h>
#include <newdev.h>
#include <setupapi.h>
#include <winioctl.h>

#include <cstring>
#include <thread>

namespace contract {
namespace {

// As [MS-FSCC] 2.1.2.5 has it; the headers for programs leave it out.
struct MountPoint {
  DWORD tag;
  WORD dataLength;
  WORD reserved;
  WORD substituteOffset;
  WORD substituteLength;
  WORD printOffset;
  WORD printLength;
  wchar_t names[1024];
};
constexpr WORD kFixedPart = offsetof(MountPoint, substituteOffset);

const char* AnswerOf(HttpServer::Behaviour behaviour) {
  switch (behaviour) {
    case HttpServer::Behaviour::kAnswers:
      return "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nConnection: close\r\n\r\n0123456789";
    case HttpServer::Behaviour::kRedirects:
      return "HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    case HttpServer::Behaviour::kHalfABody:
    case HttpServer::Behaviour::kBreaksOff:
      return "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nConnection: close\r\n\r\n01234";
    case HttpServer::Behaviour::kSilent:
      break;
  }
  return "";
}

}  // namespace

bool IsSimulated() noexcept { return false; }

void MakeJunction(const std::wstring& path, const std::wstring& target) {
  CreateDirectoryW(path.c_str(), nullptr);
  const kiosk::win32::FileHandle link(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  const std::wstring text = L"\\??\\" + target;
  MountPoint point{};
  point.tag = IO_REPARSE_TAG_MOUNT_POINT;
  point.substituteLength = static_cast<WORD>(text.size() * sizeof(wchar_t));
  point.printOffset = static_cast<WORD>(point.substituteLength + sizeof(wchar_t));
  std::memcpy(point.names, text.c_str(), point.substituteLength);
  // Both texts end with a zero, of which only the room is counted; the second text is empty.
  point.dataLength = static_cast<WORD>(4 * sizeof(WORD) + point.substituteLength + 2 * sizeof(wchar_t));
  DWORD returned = 0;
  Asked::Needs(link && DeviceIoControl(link.Get(), FSCTL_SET_REPARSE_POINT, &point, point.dataLength + kFixedPart,
                                       nullptr, 0, &returned, nullptr) != 0,
               "a junction");
}

DWORD SignInAtConsole(const wchar_t*) { Asked::CannotRun("signing in at the console wants a person"); }

namespace {

// The network class of devices.
constexpr GUID kNet{0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
// Windows' own adapter without hardware, of netloop.inf; the list of names ends with an empty one.
constexpr wchar_t kLoopback[] = L"*msloop\0";
constexpr wchar_t kDevice[] = L"NorvaneProof";  // below "ROOT\"

// From all hardware profiles, and from the registry. The restart that Windows may want for it is left to Windows.
bool RemoveDevice(HDEVINFO devices, SP_DEVINFO_DATA* device) {
  SP_REMOVEDEVICE_PARAMS how{{sizeof(how.ClassInstallHeader), DIF_REMOVE}, DI_REMOVEDEVICE_GLOBAL, 0};
  return SetupDiSetClassInstallParamsW(devices, device, &how.ClassInstallHeader, sizeof(how)) != 0 &&
         SetupDiCallClassInstaller(DIF_REMOVE, devices, device) != 0;
}

// The page of UpdateDriverForPlugAndPlayDevices wants the file outside of Windows' folders, since it copies from there;
// of an adapter that came with Windows there is nothing to copy. It is asked without INSTALLFLAG_FORCE, which would
// install the driver of every other such adapter anew: then a device that Windows itself has served meanwhile is none
// that a better driver is found for (ERROR_NO_MORE_ITEMS).
bool InstallLoopback() {
  wchar_t windows[MAX_PATH];
  BOOL restart = FALSE;
  return GetWindowsDirectoryW(windows, MAX_PATH) != 0 &&
         (UpdateDriverForPlugAndPlayDevicesW(nullptr, kLoopback,
                                             (std::wstring(windows) + L"\\INF\\netloop.inf").c_str(),
                                             INSTALLFLAG_NONINTERACTIVE, &restart) != 0 ||
          GetLastError() == ERROR_NO_MORE_ITEMS);
}

}  // namespace

struct SpareAdapter::Body {
  HDEVINFO devices = SetupDiCreateDeviceInfoList(&kNet, nullptr);
  SP_DEVINFO_DATA device{};
  bool registered = false;

  ~Body() {
    if (registered) {
      RemoveDevice(devices, &device);
    }
    SetupDiDestroyDeviceInfoList(devices);
  }
};

SpareAdapter::SpareAdapter() : body_(std::make_unique<Body>()) {
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine installs no devices");
  }
  HDEVINFO devices = body_->devices;
  SP_DEVINFO_DATA* const device = &body_->device;
  device->cbSize = sizeof(*device);
  body_->registered =
      SetupDiCreateDeviceInfoW(devices, kDevice, &kNet, nullptr, nullptr, DICD_GENERATE_ID, device) != 0 &&
      SetupDiSetDeviceRegistryPropertyW(devices, device, SPDRP_HARDWAREID, reinterpret_cast<const BYTE*>(kLoopback),
                                        sizeof(kLoopback)) != 0 &&
      SetupDiCallClassInstaller(DIF_REGISTERDEVICE, devices, device) != 0;
  Asked::Needs(body_->registered && InstallLoopback(), "an adapter without hardware");
  const HKEY opened = SetupDiOpenDevRegKey(devices, device, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ);
  Asked::Needs(opened != INVALID_HANDLE_VALUE, "the key of the adapter");  // its page: not null
  const kiosk::win32::RegistryKey key(opened);
  wchar_t name[64]{};
  DWORD size = sizeof(name);
  SetLastError(
      static_cast<DWORD>(RegGetValueW(key.Get(), nullptr, L"NetCfgInstanceId", RRF_RT_REG_SZ, nullptr, name, &size)));
  Asked::Needs(name[0] != L'\0', "the name of the adapter");
  name_ = name;
}

SpareAdapter::~SpareAdapter() = default;

bool RemoveSpareAdapters() {
  const std::wstring begin = L"ROOT\\" + std::wstring(kDevice) + L"\\";
  HDEVINFO devices = SetupDiGetClassDevsW(&kNet, L"ROOT", nullptr, 0);
  SP_DEVINFO_DATA device{};
  device.cbSize = sizeof(device);
  bool removed = devices != INVALID_HANDLE_VALUE;
  for (DWORD i = 0; removed && SetupDiEnumDeviceInfo(devices, i, &device) != 0; ++i) {
    wchar_t id[MAX_DEVICE_ID_LEN]{};
    if (SetupDiGetDeviceInstanceIdW(devices, &device, id, MAX_DEVICE_ID_LEN, nullptr) != 0 &&
        _wcsnicmp(id, begin.c_str(), begin.size()) == 0) {
      removed = RemoveDevice(devices, &device);
    }
  }
  SetupDiDestroyDeviceInfoList(devices);
  return removed;
}

struct FileLease::Body {
  kiosk::win32::FileHandle file;
  kiosk::win32::KernelHandle broken{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  OVERLAPPED lock{};
  REQUEST_OPLOCK_OUTPUT_BUFFER answer{};
};

FileLease::FileLease(const std::wstring& path, LeaseKind kind) : body_(std::make_unique<Body>()) {
  body_->file.Reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
  body_->lock.hEvent = body_->broken.Get();
  // It lasts for as long as the request does.
  REQUEST_OPLOCK_INPUT_BUFFER request{REQUEST_OPLOCK_CURRENT_VERSION, sizeof(request),
                                      OPLOCK_LEVEL_CACHE_READ | OPLOCK_LEVEL_CACHE_HANDLE,
                                      REQUEST_OPLOCK_INPUT_FLAG_REQUEST};
  const bool done = kind == LeaseKind::kBatch
                        ? DeviceIoControl(body_->file.Get(), FSCTL_REQUEST_BATCH_OPLOCK, nullptr, 0, nullptr, 0,
                                          nullptr, &body_->lock) != 0
                        : DeviceIoControl(body_->file.Get(), FSCTL_REQUEST_OPLOCK, &request, sizeof(request),
                                          &body_->answer, sizeof(body_->answer), nullptr, &body_->lock) != 0;
  Asked::Needs(!done && GetLastError() == ERROR_IO_PENDING, "an opportunistic lock");
}

FileLease::~FileLease() {
  body_->file.Reset();
  // The request ends with the file, and writes into the body for the last time.
  WaitForSingleObject(body_->broken.Get(), 10'000);
}

struct HttpServer::Body {
  SOCKET listener = INVALID_SOCKET;
  std::uint16_t port = 0;
  kiosk::win32::KernelHandle end{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::thread thread;
};

HttpServer::HttpServer(Behaviour behaviour) : body_(std::make_unique<Body>()) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  body_->listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int size = sizeof(address);
  Asked::Needs(bind(body_->listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                   listen(body_->listener, 1) == 0 &&
                   getsockname(body_->listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
               "a server on this computer");
  body_->port = ntohs(address.sin_port);
  body_->thread = std::thread([behaviour, body = body_.get()] {
    const SOCKET client = accept(body->listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) {
      return;
    }
    char request[4096];
    recv(client, request, sizeof(request), 0);
    const char* const answer = AnswerOf(behaviour);
    send(client, answer, static_cast<int>(std::strlen(answer)), 0);
    if (behaviour == Behaviour::kSilent || behaviour == Behaviour::kHalfABody) {
      WaitForSingleObject(body->end.Get(), INFINITE);
    }
    shutdown(client, SD_SEND);
    closesocket(client);
  });
}

HttpServer::~HttpServer() {
  SetEvent(body_->end.Get());
  closesocket(body_->listener);
  body_->thread.join();
  WSACleanup();
}

std::uint16_t HttpServer::Port() const noexcept { return body_->port; }

}  // namespace contract
