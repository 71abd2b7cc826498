#include "tests/support/fixture.h"

#include "account/winlogon.h"
#include "sim/profiles.h"
#include "state/folders.h"
#include "win32/handle.h"
#include "win32/wide_text.h"

#include <fcntl.h>
#include <io.h>
#include <process.h>

#include <algorithm>

namespace kiosk::test {

namespace {

// What kiosk mode, or the computer's owner in an earlier test, left outside of the simulated machine's own state.
// Before that is forgotten, which knows the users.
void ForgetKioskTraces() {
  sim::ForgetProfiles();  // the numbers at the ends of SIDs begin anew, and nobody may find the profile of a namesake
  RemoveTree(L"C:\\users\\NorvaneKiosk");
  for (const wchar_t* key : {account::kPasswordLessKey, account::kSystemPoliciesKey, kWindowsUpdateKey}) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    win32::RegistryKey made;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, key, made.Put());
  }
  win32::RegistryKey made;
  RegCreateKeyW(HKEY_LOCAL_MACHINE, (std::wstring(kWindowsUpdateKey) + L"\\AU").c_str(), made.Put());
  for (const wchar_t* name :
       {L"AutoAdminLogon", L"DefaultUserName", L"DefaultDomainName", L"DefaultPassword", L"AutoLogonCount"}) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, account::kWinlogonKey, name);
  }
}

// Names with a dot at their end, and paths of any length.
std::wstring Exact(const std::wstring& path) { return L"\\\\?\\" + path; }

}  // namespace

void ResetComputer() {
  ForgetKioskTraces();
  for (const wchar_t* key : {L"SOFTWARE\\Norvane", L"SOFTWARE\\SimulatedWindows"}) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, key);
  }
  RemoveTree(L"C:\\ProgramData\\Norvane");
}

std::vector<std::string> LogLines(std::string_view component) {
  std::vector<std::string> lines;
  const std::wstring prefix = win32::ToWide(component) + L"_";
  for (const std::wstring& folder : ListFolder(state::kLogRoot)) {
    for (const std::wstring& name : ListFolder(std::wstring(state::kLogRoot) + L"\\" + folder)) {
      if (!name.starts_with(prefix)) {
        continue;
      }
      const std::string content = ReadWholeFile(std::wstring(state::kLogRoot) + L"\\" + folder + L"\\" + name);
      for (std::size_t at = 0; at < content.size();) {
        const std::size_t end = content.find('\n', at);
        lines.push_back(content.substr(at, end - at));
        at = end == std::string::npos ? content.size() : end + 1;
      }
    }
  }
  return lines;
}

std::vector<std::string> LogTexts(std::string_view component) {
  std::vector<std::string> texts = LogLines(component);
  for (std::string& line : texts) {
    const std::size_t end = line.find("] ");
    line.erase(0, end == std::string::npos ? 0 : end + 2);
  }
  return texts;
}

int CountLogged(std::string_view text) {
  const std::vector<std::string> texts = LogTexts();
  return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

win32::KernelHandle StartThisTestAs(const wchar_t* role) {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::wstring filter =
      L"--gtest_filter=" + win32::ToWide(test.test_suite_name()) + L"." + win32::ToWide(test.name());
  const intptr_t process = _wspawnl(_P_NOWAIT, self, L"test", L"--gtest_brief=1", filter.c_str(), role, nullptr);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the runtime gives the handle as a number
  return win32::KernelHandle(reinterpret_cast<HANDLE>(process));
}

void SetRaw(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, std::size_t size) {
  win32::RegistryKey opened;
  ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, key, opened.Put()), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExW(opened.Get(), name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)),
            ERROR_SUCCESS);
}

void SetDword(const wchar_t* key, const wchar_t* name, DWORD number) {
  SetRaw(key, name, REG_DWORD, &number, sizeof(number));
}

void SetString(const wchar_t* key, const wchar_t* name, std::wstring_view text, DWORD type) {
  const std::wstring terminated(text);
  SetRaw(key, name, type, terminated.c_str(), state::StringBytes(text));
}

bool HasValue(const wchar_t* key, const wchar_t* name) {
  return RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_ANY | RRF_NOEXPAND, nullptr, nullptr, nullptr) ==
         ERROR_SUCCESS;
}

std::string ReadWholeFile(const std::wstring& path) {
  const win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                           OPEN_EXISTING, 0, nullptr));
  std::string content;
  char chunk[4096];
  for (DWORD read = 0; file && ReadFile(file.Get(), chunk, sizeof(chunk), &read, nullptr) != 0 && read > 0;) {
    content.append(chunk, read);
  }
  return content;
}

void WriteWholeFile(const std::wstring& path, std::string_view content) {
  win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  ASSERT_TRUE(file) << GetLastError();
  // Not by WriteFile, which a FaultPass counts: this is the test's own hand.
  const int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(file.Release()), _O_BINARY);
  EXPECT_EQ(_write(descriptor, content.data(), static_cast<unsigned>(content.size())),
            static_cast<int>(content.size()));
  _close(descriptor);
}

std::vector<std::wstring> ListFolder(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  const win32::FindHandle find(FindFirstFileW(Exact(folder + L"\\*").c_str(), &data));
  for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.Get(), &data) != 0) {
    const std::wstring name = data.cFileName;
    if (name != L"." && name != L"..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

void RemoveTree(const std::wstring& folder) {
  for (const std::wstring& name : ListFolder(folder)) {
    const std::wstring path = folder + L"\\" + name;
    if (DeleteFileW(Exact(path).c_str()) == 0) {
      RemoveTree(path);
    }
  }
  RemoveDirectoryW(Exact(folder).c_str());
}

}  // namespace kiosk::test
