// Program files: who signed them, which process runs which, on what drive they lie, and who keeps others from opening
// them. What a test declares holds for its own process.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

// Windows trusts an embedded signature of that file, whose certificate has this Subject ("CN=Norvane"). Files of which
// nothing is said are judged by what is in them.
void SignFile(const std::wstring& path, const std::wstring& subject);

// What Windows names as the program file of every process; empty: the real one.
void SetProcessImage(const std::wstring& path);

// The drive's type ("R:\\", DRIVE_REMOTE). It need not be there.
void SetDriveType(const std::wstring& root, UINT type);

// While it lives, nobody else opens the file: whoever tries waits until its end, as for somebody who holds an exclusive
// opportunistic lock on it and does not acknowledge that it is broken ("Breaking Opportunistic Locks": the open
// operation is delayed until the holder is done; no time limit). With an error every attempt fails with that at once.
class HeldFile {
 public:
  explicit HeldFile(const std::wstring& path, DWORD error = ERROR_SUCCESS);
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  ~HeldFile();

  // How often somebody tried.
  [[nodiscard]] int Attempts() const;

 private:
  std::wstring path_;
};

// For the simulated CreateFileW, before it opens: waits while somebody holds the file, and returns the error with which
// it is to fail. Opening a file of a server is a violation: Windows signs in there, as the computer, for a service that
// runs as LocalSystem.
DWORD AwaitOpening(const std::wstring& path);

}  // namespace sim
