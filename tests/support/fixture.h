// Common ground of the tests that run under Wine: each begins on a computer that knows nothing of this product.
#pragma once

#include "sim/gtest_report.h"
#include "state/registry.h"
#include "state/state_values.h"
#include "win32/handle.h"
#include "win32/winapi.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace kiosk::test {

// Below it Windows Update keeps its policies, those of automatic updates in "AU".
inline constexpr wchar_t kWindowsUpdateKey[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate";

// Deletes the state key, the settings keys, the log tree, what kiosk mode leaves, and the simulated machine.
void ResetComputer();

class CleanMachine : public ::testing::Test {
 protected:
  void SetUp() override { ResetComputer(); }
};

// All lines of `component`'s log files, oldest file first, without their newlines.
std::vector<std::string> LogLines(std::string_view component = "Kiosk");

// Lines without their time stamp ("INFO text").
std::vector<std::string> LogTexts(std::string_view component = "Kiosk");

// How many of those texts equal `text`.
int CountLogged(std::string_view text);

// Starts the running test once more, in a process that knows by `role` on its command line what to be.
win32::KernelHandle StartThisTestAs(const wchar_t* role);
inline bool ThisTestIs(const wchar_t* role) { return wcsstr(GetCommandLineW(), role) != nullptr; }

// Polls in real time, for ten seconds at most, for what another process or thread does.
template <typename Condition>
bool Becomes(Condition condition) {
  for (int i = 0; i < 2'000 && !condition(); ++i) {
    Sleep(5);
  }
  return condition();
}

// Writes a value below HKLM and fails the test when that fails.
void SetRaw(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, std::size_t size);
void SetDword(const wchar_t* key, const wchar_t* name, DWORD number);
void SetString(const wchar_t* key, const wchar_t* name, std::wstring_view text, DWORD type = REG_SZ);
bool HasValue(const wchar_t* key, const wchar_t* name);

// Files and folders with plain Windows calls, below the real file system of the prefix.
std::string ReadWholeFile(const std::wstring& path);
void WriteWholeFile(const std::wstring& path, std::string_view content);
std::vector<std::wstring> ListFolder(const std::wstring& folder);  // names without "." and "..", sorted
void RemoveTree(const std::wstring& folder);

}  // namespace kiosk::test
