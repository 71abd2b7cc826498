#include "log/identity.h"

#include "log/log_settings.h"
#include "state/registry.h"
#include "text/text.h"
#include "win32/computer_name.h"
#include "win32/file_wait.h"
#include "win32/folder_entries.h"
#include "win32/handle.h"
#include "win32/random.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

namespace kiosk::log {
namespace {

constexpr std::size_t kUuidLength = 36;
constexpr std::size_t kDashes[] = {8, 13, 18, 23};

std::string OrUnknown(const std::wstring& text, std::size_t limit) {
  std::string narrow = win32::ToNarrow(text);
  narrow.resize(text::CutLength(narrow, limit));
  return narrow.empty() ? "unknown" : narrow;
}

bool IsUuid(std::string_view text) {
  if (text.size() != kUuidLength) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = std::find(std::begin(kDashes), std::end(kDashes), i) != std::end(kDashes);
    if (dash ? text[i] != '-' : !text::IsLowerHexDigit(text[i])) {
      return false;
    }
  }
  return true;
}

// Version 4, RFC 9562.
std::string NewUuid() {
  std::array<std::uint8_t, 16> bytes{};
  if (!win32::FillRandom(bytes.data(), bytes.size())) {
    return {};
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
  std::string uuid = text::Hex(bytes);
  for (const std::size_t dash : kDashes) {
    uuid.insert(dash, 1, '-');
  }
  return uuid;
}

// Another process may be moving the file into place. Of a link in its place nothing is read. Empty text: there is none,
// or it is damaged. Empty optional: nobody can tell now.
std::optional<std::string> ReadUuid(const std::wstring& path) {
  const win32::FileHandle file =
      win32::OpenAt(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
  if (!file) {
    return GetLastError() == ERROR_FILE_NOT_FOUND ? std::optional<std::string>("") : std::nullopt;
  }
  std::array<char, 64> buffer{};
  DWORD read = 0;
  if (ReadFile(file.Get(), buffer.data(), buffer.size(), &read, nullptr) == 0) {
    return std::nullopt;
  }
  const std::string_view text = text::TrimSpace({buffer.data(), read});
  return IsUuid(text) ? std::string(text) : std::string();
}

bool WriteNew(const std::wstring& path, const std::string& uuid) {
  const win32::FileHandle file(
      CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  return file && WriteFile(file.Get(), uuid.data(), kUuidLength, &written, nullptr) != 0 && written == kUuidLength &&
         FlushFileBuffers(file.Get()) != 0;
}

// Takes no good file's place: another process may have made one meanwhile.
bool MoveIntoPlace(const std::wstring& from, const std::wstring& to) {
  if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH) != 0) {
    return true;
  }
  const win32::FileWaitLimit limit;
  return limit && ReadUuid(to) == "" &&
         MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

// Written whole under a name of this process's own and moved into place, so that no other process ever reads a half.
// Once it is there the files of others go: they are left over, or come too late.
bool WriteUuid(const std::wstring& root, const std::wstring& path, const std::string& uuid) {
  const std::wstring temporary = path + L"." + std::to_wstring(GetCurrentProcessId()) + L".tmp";
  DeleteFileW(temporary.c_str());
  if (!WriteNew(temporary, uuid) || !MoveIntoPlace(temporary, path)) {
    DeleteFileW(temporary.c_str());
    return false;
  }
  for (const win32::FolderEntry& each : win32::EntriesOf(root, L"client_uuid.txt*.tmp")) {
    DeleteFileW(each.path.c_str());
  }
  return true;
}

}  // namespace

Identity ReadIdentity() {
  Identity identity;
  identity.host = OrUnknown(win32::ComputerName(), 128);
  identity.machine =
      OrUnknown(state::ReadString(L"SOFTWARE\\Microsoft\\Cryptography", L"MachineGuid").value_or(L""), 64);
  identity.tenant = OrUnknown(ReadSettingString(L"TenantId"), 64);
  identity.site = OrUnknown(ReadSettingString(L"Site"), 64);
  return identity;
}

std::string LoadOrCreateInstallId(const wchar_t* root) {
  const std::wstring path = std::wstring(root) + L"\\client_uuid.txt";
  std::optional<std::string> uuid = ReadUuid(path);
  if (uuid && uuid->empty()) {
    const std::string made = NewUuid();
    uuid = !made.empty() && WriteUuid(root, path, made) ? made : ReadUuid(path);
  }
  return uuid.value_or("");
}

}  // namespace kiosk::log
