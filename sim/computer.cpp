#include "sim/computer.h"

#include "sim/accounts.h"
#include "sim/callers.h"
#include "sim/clock.h"
#include "sim/lsa.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "sim/power.h"
#include "sim/profiles.h"
#include "sim/seam.h"
#include "sim/sessions.h"
#include "sim/shutdown.h"
#include "sim/tasks.h"
#include "sim/windows_update.h"

#include <lm.h>
#include <winhttp.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>

namespace sim {
namespace {

constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";

std::wstring WinlogonText(const wchar_t* name) { return RegistryText(kWinlogon, name).value_or(L""); }

// A count of automatic sign-ins goes down with each of them and ends them at 0.
bool CountAllows() {
  const std::optional<DWORD> count = RegistryNumber(kWinlogon, L"AutoLogonCount");
  if (count == DWORD{0}) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogon, L"AutoLogonCount");
    SetRegistryText(kWinlogon, L"AutoAdminLogon", L"0");
  } else if (count) {
    const DWORD left = *count - 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kWinlogon, L"AutoLogonCount", REG_DWORD, &left, sizeof(left));
  }
  return count != DWORD{0};
}

std::string Hex(const std::vector<BYTE>& bytes) {
  std::string text;
  char pair[4];
  for (const BYTE byte : bytes) {
    static_cast<void>(std::snprintf(pair, sizeof(pair), "%02x", byte));
    text += pair;
  }
  return text;
}

std::string DefaultProxy() {
  WINHTTP_PROXY_INFO info{};
  WinHttpGetDefaultProxyConfiguration(&info);
  std::wstring text = info.lpszProxy != nullptr ? info.lpszProxy : L"none";
  text += L" except " + std::wstring(info.lpszProxyBypass != nullptr ? info.lpszProxyBypass : L"none");
  GlobalFree(info.lpszProxy);
  GlobalFree(info.lpszProxyBypass);
  return Narrow(text);
}

// The values of a key as type and bytes, then those of the keys below it. A key that is not there has no line.
void DumpKey(const std::wstring& path, std::vector<std::string>& lines) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return;
  }
  const std::string name = "HKLM\\" + Narrow(path);
  lines.push_back(name);
  wchar_t text[512];
  for (DWORD i = 0, size = 512, type = 0;; ++i, size = 512) {
    std::vector<BYTE> data(65536);
    DWORD bytes = 65536;
    if (RegEnumValueW(key, i, text, &size, nullptr, &type, data.data(), &bytes) != ERROR_SUCCESS) {
      break;
    }
    data.resize(bytes);
    lines.push_back(name + "\\" + Narrow(text) + " = " + std::to_string(type) + ":" + Hex(data));
  }
  for (DWORD i = 0; RegEnumKeyW(key, i, text, 512) == ERROR_SUCCESS; ++i) {
    DumpKey(path + L"\\" + text, lines);
  }
  RegCloseKey(key);
}

}  // namespace

DWORD RestartComputer() {
  EndAllSessions();
  for (const std::wstring& name : ValueNames(L"Hives")) {
    UnloadHive(name);
  }
  ForgetShutdown();
  RestartAgent();
  TicksStartAnew();
  const std::optional<User> user = FindUser(WinlogonText(L"DefaultUserName"));
  const std::wstring domain = WinlogonText(L"DefaultDomainName");
  const bool here = domain.empty() || domain == L"." || _wcsicmp(domain.c_str(), ComputerName().c_str()) == 0;
  const std::wstring password = Secret(L"DefaultPassword").value_or(WinlogonText(L"DefaultPassword"));
  if (WinlogonText(L"AutoAdminLogon") != L"1" || !here || !user || (user->flags & UF_ACCOUNTDISABLE) != 0 ||
      user->password != password || !CountAllows()) {
    return 0;
  }
  return SignIn(user->name);
}

std::string DumpMachine() {
  return DumpMachine({kWinlogon, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PasswordLess\\Device",
                      L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System", kProfileListKey,
                      L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate"});
}

std::string DumpMachine(const std::vector<std::wstring>& keys) {
  std::vector<std::string> lines;
  for (const std::wstring& name : UserNames()) {
    const User user = FindUser(name).value_or(User());
    lines.push_back("user " + Narrow(user.name + L" " + user.sid + L" \"" + user.fullName + L"\" " + user.password) +
                    " " + std::to_string(user.flags));
  }
  for (const std::wstring& group : AreaNames(L"Groups")) {
    for (const std::wstring& member : GroupMembers(group)) {
      lines.push_back("member " + Narrow(group + L" " + member));
    }
  }
  for (const std::wstring& name : ValueNames(L"Secrets")) {
    lines.push_back("secret " + Narrow(name + L" " + Secret(name).value_or(L"")));
  }
  for (const std::wstring& name : ValueNames(L"Hives")) {
    if (HiveLoaded(name)) {
      lines.push_back("hive " + Narrow(name));
    }
  }
  for (const auto& folder : std::filesystem::directory_iterator(L"C:\\users")) {
    lines.push_back("folder " + Narrow(folder.path().wstring()));
  }
  lines.push_back("proxy " + DefaultProxy());
  std::istringstream adapters(DumpAdapters());
  for (std::string line; std::getline(adapters, line);) {
    lines.push_back("adapter " + line);
  }
  for (const std::wstring& key : keys) {
    DumpKey(key, lines);
  }
  for (const std::vector<std::string>& more : {PowerLines(), TaskLines()}) {
    lines.insert(lines.end(), more.begin(), more.end());
  }
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

DWORD RunMachineCommand(const std::wstring& command) {
  std::wistringstream words(command);
  std::wstring verb;
  std::wstring name;
  DWORD number = 0;
  words >> verb;
  if (verb == L"signin") {
    words >> name >> number;
    return SignIn(name, number);
  }
  if (verb == L"restart") {
    return RestartComputer();
  }
  if (verb == L"user") {
    std::wstring password;
    words >> name >> password;
    AddUser(name, password);
  } else if (verb == L"caller") {
    words >> name;
    SetPipeCaller({.user = name, .session = words >> number ? std::optional(number) : std::nullopt});
  } else if (verb == L"update") {
    std::getline(words >> std::ws, name);
    OfferUpdate({.title = name});
  } else if (verb == L"agent") {
    words >> number >> name;
    const wchar_t* const stages[] = {L"search", L"download", L"install"};
    for (const AgentStage stage : {kSearch, kDownload, kInstall}) {
      if (name == stages[stage]) {
        agent.duration[stage].Set(number);
      }
    }
  } else if (verb == L"signout") {
    words >> number;
    SignOut(number);
  } else if (verb == L"due") {
    words >> number >> name;
    return RunDueTasks(number, name);
  } else {
    Violation("the machine does not know the command %s", Narrow(command).c_str());
  }
  return 0;
}

}  // namespace sim
