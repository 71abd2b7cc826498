#include "state/folders.h"

#include "state/registry.h"

namespace kiosk::state {
namespace {

constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";
constexpr wchar_t kProfileList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";

}  // namespace

std::wstring ClientInstallFolder() {
  std::wstring folder = ReadString(kUpdateKey, L"ClientInstallDir").value_or(L"");
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) {
    folder.pop_back();
  }
  return folder;
}

std::optional<std::wstring> ProfileFolder(const std::wstring& sid) {
  return ReadString((kProfileList + sid).c_str(), L"ProfileImagePath");
}

}  // namespace kiosk::state
