// What the files of the simulation share: how paths are named in the machine's areas, and which changes count.
#pragma once

#include "sim/bad_disk.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <string>

namespace sim {

inline constexpr wchar_t kOwners[] = L"FileOwner";
inline constexpr wchar_t kDacls[] = L"FileDacl";
inline constexpr wchar_t kLinks[] = L"Links";       // path: target
inline constexpr wchar_t kKept[] = L"KeptHandles";  // path: target of the link to come
inline constexpr wchar_t kPending[] = L"DeletePending";
inline constexpr wchar_t kRunning[] = L"RunningPrograms";

std::wstring Lower(std::wstring path);
// The name of a path in the machine's areas.
std::wstring Plain(const std::wstring& path);
std::wstring PathOf(HANDLE file);

bool IsLink(const std::wstring& plain);
// Deleted, but for a handle that somebody keeps: the name is taken and nobody can open it.
bool IsPending(const std::wstring& path);
// Whoever keeps a handle to a folder that is empty now makes it a link.
void UseKeptHandles();

// The path that Windows would reach: links in the middle are followed, a link at the end when `last`.
std::wstring Resolve(const wchar_t* given, bool last);

// What was known of a path that is gone.
void Forget(const std::wstring& path);
void SetFileSecurity(const std::wstring& path, PSECURITY_DESCRIPTOR descriptor);

// What an opening is to a bad disk; `existing`: it makes no file.
unsigned KindOfOpening(const std::wstring& path, bool existing);

bool HandleAllows(HANDLE file, DWORD rights);

// A file of the log's spool.
bool InSpool(const std::wstring& plain);
// Files of the log do not count as changes, unless they are of its spool.
bool Counts(const std::wstring& plain);

// Also what a bad disk refuses: `kind` is of sim/bad_disk.h.
template <typename Call>
BOOL ChangeFile(const char* function, unsigned kind, const std::wstring& path, Call call) {
  const std::wstring plain = Plain(path);
  if (DiskRefuses(kind, plain)) {
    return FALSE;
  }
  return Counts(plain) ? Change<BOOL>(function, plain, call) : call();
}

// The same on an open file; pipes and the like do not count.
template <typename Call>
BOOL ChangeOpenFile(const char* function, unsigned kind, HANDLE file, Call call) {
  const std::wstring path = ChangePoint::Armed() || DiskIsBad() ? PathOf(file) : L"";
  return path.empty() ? call() : ChangeFile(function, kind, path, call);
}

}  // namespace sim
