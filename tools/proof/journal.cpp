#include "tools/proof/journal.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "state/kiosk_state.h"
#include "text/text.h"
#include "tools/proof/files.h"
#include "tools/proof/secrets.h"
#include "tools/proof/services.h"
#include "tools/proof/undo.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <vector>

namespace proof {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::ToNarrow;
using kiosk::win32::ToWide;

const std::wstring kJournal = std::wstring(kWorkFolder) + L"\\journal.txt";

Value Entry(const char* kind, const wchar_t* name) {
  Value entry = Value::Object();
  entry.Set("kind", kind);
  entry.Set("name", ToNarrow(name));
  return entry;
}

// Replaces the whole file: what is cut short leaves no half of a line behind, to which the next would be added.
bool Note(const Value& entry) {
  const std::optional<std::string> text = ReadFileText(kJournal);
  return text && ReplaceFileText(kJournal, *text + kiosk::json::Serialise(entry) + "\n");
}

// The uppermost key of the path that is not there; empty when all are.
std::wstring FirstMissingKey(const std::wstring& path) {
  for (std::size_t end = 0; end != std::wstring::npos;) {
    end = path.find(L'\\', end + 1);
    kiosk::win32::RegistryKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.substr(0, end).c_str(), 0, KEY_READ, key.Put()) ==
        ERROR_FILE_NOT_FOUND) {
      return path.substr(0, end);
    }
  }
  return {};
}

// Empty when a line cannot be read.
std::optional<std::vector<Value>> Entries() {
  const std::optional<std::string> text = ReadFileText(kJournal);
  if (!text || (!text->empty() && text->back() != '\n')) {
    return std::nullopt;
  }
  std::vector<Value> entries;
  for (const std::string& line : Split(*text)) {
    std::optional<Value> entry = kiosk::json::Parse(line);
    if (!entry || FindUndo(Member(*entry, "kind").text()) == nullptr) {
      return std::nullopt;
    }
    entries.push_back(std::move(*entry));
  }
  return entries;
}

}  // namespace

JournalState LookAtJournal() {
  if (!IsThere(kJournal)) {
    return JournalState::kNone;
  }
  return Entries() ? JournalState::kThere : JournalState::kDamaged;
}

std::string BeginJournal() {
  const kiosk::win32::FolderResult folder =
      kiosk::win32::SecureFolder(kWorkFolder, kiosk::win32::kPrivateFolderSddl, kiosk::win32::ForeignFolder::kRemove);
  if (!folder) {
    return "the kit's folder cannot be made (" + std::to_string(folder.error) + ")";
  }
  return ReplaceFileText(kJournal, "") ? std::string()
                                       : "the journal cannot be written (" + std::to_string(GetLastError()) + ")";
}

bool NoteValue(const wchar_t* key, const wchar_t* name) {
  kiosk::state::RawValue before;
  const LSTATUS read = kiosk::state::ReadValue(key, name, before);
  if (read != ERROR_SUCCESS && read != ERROR_FILE_NOT_FOUND) {
    return false;
  }
  Value entry = Entry("value", name);
  entry.Set("key", ToNarrow(key));
  if (read == ERROR_SUCCESS) {
    entry.Set("type", before.type);
    entry.Set("bytes", kiosk::text::Hex(before.bytes));
  }
  if (const std::wstring made = FirstMissingKey(key); !made.empty()) {
    entry.Set("made", ToNarrow(made));
  }
  return Note(entry);
}

bool SetValue(const wchar_t* key, const wchar_t* name, DWORD type, const std::wstring& text) {
  return NoteValue(key, name) && kiosk::state::WriteString(key, name, text, type);
}

bool SetValue(const wchar_t* key, const wchar_t* name, DWORD number) {
  return NoteValue(key, name) && kiosk::state::WriteDword(key, name, number);
}

bool NoteSecret(const wchar_t* name) {
  std::string sealed;
  Value entry = Entry("secret", name);
  const DWORD error = ReadSecret(name, sealed);
  SetLastError(error);
  entry.Set("sealed", sealed);
  return error == ERROR_SUCCESS && Note(entry);
}

bool NoteFolder(const std::wstring& path) { return IsThere(path) || Note(Entry("folder", path.c_str())); }
bool NoteService(const wchar_t* name) { return Note(Entry("service", name)); }
bool NoteUser(const wchar_t* name) { return Note(Entry("user", name)); }
bool NoteProduct(const std::wstring& program) { return Note(Entry("product", program.c_str())); }
bool NoteHive(const wchar_t* name) { return Note(Entry("hive", name)); }
bool NoteTrust(const wchar_t* thumbprint) { return Note(Entry("trust", thumbprint)); }
bool NoteContractCases() { return Note(Entry("cases", L"NorvaneProof")); }

std::string UndoAll(bool byAgent) {
  const std::optional<std::vector<Value>> entries = Entries();
  if (!entries) {
    return "the journal cannot be read";
  }
  if (!byAgent) {
    EndService(kAgentService);  // it would go on meanwhile
  }
  std::string left;
  for (auto entry = entries->rbegin(); entry != entries->rend(); ++entry) {
    const std::string& kind = Member(*entry, "kind").text();
    const std::wstring name = ToWide(Member(*entry, "name").text());
    if (byAgent && name == kAgentService) {
      DeleteService(OpenExisting(kAgentService, DELETE).Get());  // it is gone once it has stopped
    } else if (!FindUndo(kind)(*entry, name)) {
      left += (left.empty() ? "" : "; ") + kind + " " + Member(*entry, "name").text() + " is not back yet";
    }
  }
  if (left.empty() && !kiosk::win32::RemoveTree(kWorkFolder)) {
    left = "the kit's folder cannot be removed (" + std::to_string(GetLastError()) + ")";
  }
  return left;
}

}  // namespace proof
