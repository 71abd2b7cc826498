#include "commands.h"
#include "log_files.h"
#include "state/folders.h"
#include "win32/console.h"
#include "win32/handle.h"
#include "win32/wide_text.h"

namespace kioskctl {
namespace {

constexpr DWORD kPollInterval = 500;

// Why the log folder cannot be listed; ERROR_SUCCESS when it can be.
DWORD ListingError() {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const kiosk::win32::FileHandle folder(CreateFileW(kiosk::state::kLogRoot, FILE_LIST_DIRECTORY, kAll, nullptr,
                                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  return folder ? DWORD{ERROR_SUCCESS} : GetLastError();
}

}  // namespace

int ShowLog(const Options& options, const Words& /*words*/) {
  const std::string folder = kiosk::win32::ToNarrow(kiosk::state::kLogRoot);
  if (const DWORD error = ListingError(); error == ERROR_ACCESS_DENIED) {
    kiosk::win32::PrintError(folder + " cannot be read" + ErrorText(error) + ": run this as an administrator.\n");
    return kServiceError;
  }
  LogReader reader;
  std::string lines = reader.NewLines();
  if (lines.empty()) {
    kiosk::win32::PrintError("The service has written no log yet in " + folder + ".\n");
    if (!options.follow) {
      return kServiceError;
    }
  }
  // Ends with whoever reads it; at a console with Ctrl+C, as Windows ends a program.
  while (kiosk::win32::Print(lines) && options.follow) {
    Sleep(kPollInterval);
    lines = reader.NewLines();
  }
  return kDone;
}

}  // namespace kioskctl
