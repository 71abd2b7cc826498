#include "tests/contract/contract.h"

#include "tests/contract/hand.h"
#include "win32/handle.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstring>

namespace contract {
namespace {

struct CannotRunHere {
  std::string why;
};

std::string Number(std::uint64_t number) {
  // An HRESULT or NTSTATUS reads better as such.
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof(text), number >= 0x80000000 ? "0x%llX" : "%llu", number));
  return text;
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : "; ") + part;
  }
  return text;
}

}  // namespace

const char* Name(Platform platform) noexcept {
  constexpr const char* kNames[] = {"simulation", "wine", "windows"};
  return kNames[static_cast<int>(platform)];
}

const char* Name(Verdict verdict) noexcept {
  constexpr const char* kNames[] = {"held", "broken", "known", "could not run"};
  return kNames[static_cast<int>(verdict)];
}

Platform ThisPlatform() noexcept {
  if (IsSimulated()) {
    return Platform::kSimulation;
  }
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr ? Platform::kWine
                                                                                       : Platform::kWindows;
}

void Asked::Same(const char* what, const std::wstring& answer, const std::wstring& promise) {
  if (answer != promise) {
    broken_.push_back(std::string(what) + ": \"" + kiosk::win32::ToNarrow(answer) + "\" in place of \"" +
                      kiosk::win32::ToNarrow(promise) + "\"");
  }
}

void Asked::Judge(const char* what, std::uint64_t answer, std::initializer_list<std::uint64_t> promises) {
  if (std::find(promises.begin(), promises.end(), answer) != promises.end()) {
    return;
  }
  std::string wanted;
  for (const std::uint64_t promise : promises) {
    wanted += (wanted.empty() ? "" : " or ") + Number(promise);
  }
  broken_.push_back(std::string(what) + ": " + Number(answer) + " in place of " + wanted);
}

void Asked::Tells(const char* what, std::uint64_t answer) {
  told_.push_back(std::string(what) + ": " + Number(answer));
}

void Asked::CannotRun(const std::string& why) { throw CannotRunHere{why}; }

void Asked::Needs(bool there, const char* what) {
  if (const DWORD error = GetLastError(); !there) {
    CannotRun(std::string(what) + " (" + Number(error) + ")");
  }
}

void Asked::KnownWrong(Platform platform, const char* why) {
  if (platform == ThisPlatform()) {
    known_ = why;
  }
}

Result Case::Run() const {
  Asked asked;
  try {
    run(asked);
  } catch (const CannotRunHere& reason) {
    return {Verdict::kCouldNotRun, reason.why};
  }
  if (asked.known_.empty()) {
    return asked.broken_.empty() ? Result{Verdict::kHeld, Joined(asked.told_)}
                                 : Result{Verdict::kBroken, Joined(asked.broken_)};
  }
  return asked.broken_.empty() ? Result{Verdict::kBroken, "it holds: take the mark \"" + asked.known_ + "\" away"}
                               : Result{Verdict::kKnown, asked.known_ + ": " + Joined(asked.broken_)};
}

extern const Group kAccounts, kAdapters, kCrypto, kEventLog, kFiles, kHttp, kLsa, kPipe, kPower, kProfiles, kProxy,
    kRegistry, kServices, kSessions, kSignatures, kTasks, kThreads, kTime;

std::span<const Group* const> Groups() noexcept {
  static constexpr const Group* kGroups[] = {&kThreads,    &kTime,     &kCrypto, &kRegistry, &kFiles,    &kPipe,
                                             &kSignatures, &kAccounts, &kLsa,    &kProfiles, &kSessions, &kPower,
                                             &kTasks,      &kAdapters, &kProxy,  &kHttp,     &kServices, &kEventLog};
  return kGroups;
}

Folder::Folder() {
  wchar_t root[MAX_PATH];
  GetTempPathW(MAX_PATH, root);
  path_ = std::wstring(root) + L"NorvaneProof-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
          std::to_wstring(GetTickCount64());
  Asked::Needs(CreateDirectoryW(path_.c_str(), nullptr) != 0, "a folder for temporary files");
}

Folder::~Folder() { kiosk::win32::RemoveTree(path_); }

std::wstring Folder::File(const wchar_t* name, const char* content) const {
  std::wstring path = Path(name);
  const kiosk::win32::FileHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  Asked::Needs(file && WriteFile(file.Get(), content, static_cast<DWORD>(std::strlen(content)), &written, nullptr) != 0,
               "a file of its own");
  return path;
}

}  // namespace contract
