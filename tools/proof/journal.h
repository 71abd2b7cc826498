// The journal of changes: what a run changes of the computer is written down, durably, before it is changed, so that a
// fresh process can put all of it back whatever became of the run.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace proof {

// Of the kit alone: SYSTEM's and Administrators', so that nobody else can write into a journal what is then undone.
inline constexpr wchar_t kWorkFolder[] = L"C:\\ProgramData\\NorvaneProof";
inline constexpr wchar_t kAgentService[] = L"NorvaneProofAgent";

enum class JournalState { kNone, kThere, kDamaged };
JournalState LookAtJournal();

// An empty journal in its folder. Empty, or why not.
std::string BeginJournal();

// Each notes what it changes and then changes it, or does neither and is false. Order counts: the last is undone first.
bool SetValue(const wchar_t* key, const wchar_t* name, DWORD type, const std::wstring& text);
bool SetValue(const wchar_t* key, const wchar_t* name, DWORD number);
// What others are about to change or make.
bool NoteValue(const wchar_t* key, const wchar_t* name);
bool NoteSecret(const wchar_t* name);           // of the local security authority; its text is sealed (secrets.h)
bool NoteFolder(const std::wstring& path);      // is removed, with all that is in it, unless it is there already
bool NoteService(const wchar_t* name);          // is stopped and deleted
bool NoteUser(const wchar_t* name);             // is deleted, with the profile
bool NoteProduct(const std::wstring& program);  // is uninstalled
bool NoteHive(const wchar_t* name);             // is unloaded from HKEY_USERS
bool NoteTrust(const wchar_t* thumbprint);      // the certificate is no trusted root any more
bool NoteContractCases();                       // what a case makes bears a name of its own

// Puts everything back, the last change first, and removes the journal and its folder. Each thing that cannot be put
// back is a sentence in the result, and the journal stays. With `byAgent` the agent's service, which cannot wait for
// itself, is only marked to go. May be repeated.
std::string UndoAll(bool byAgent = false);

}  // namespace proof
