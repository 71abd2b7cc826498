// The Windows Update Agent of the simulated machine: area "WindowsUpdate", with an area "Updates\<number>" for each
// update that is offered, and numbers that a test sets:
//   "Fail <stage>"    an HRESULT for session, searcher, collection, searchBegin, search, downloader, downloadBegin,
//                     download, installer, installBegin, install, commit, system; the last of each three as the
//                     operation's result
//   "Duration <stage>" milliseconds that search, download, install and commit take; INFINITE: until they are aborted
//   "Code search"     the OperationResultCode of a search that succeeds
//   "Stubborn"        1: an abort is ignored
//   "InstallerBusy", "RebootRequired"
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

inline constexpr wchar_t kUpdateArea[] = L"WindowsUpdate";

struct OfferedUpdate {
  std::wstring title;
  std::wstring size = L"1048576";  // bytes; with "-" below 0; "none": it cannot be read
  DWORD reboot = 0;                // an InstallationRebootBehavior; 1: its installation asks for a restart
  bool browseOnly = false;
  bool asksPerson = false;
  bool termsAccepted = true;
  bool exclusive = false;     // InstallationImpact 2: in a call with any other, nothing is installed
  bool noBehaviour = false;   // it has no installation behaviour
  bool feature = false;       // without a commit before the restart it is not installed
  DWORD downloadFailure = 0;  // the HRESULT of its download
  DWORD failure = 0;          // the HRESULT of its installation
  DWORD termsFailure = 0;     // the HRESULT of accepting its terms
};

// Offers one more update and returns its id.
std::wstring OfferUpdate(const OfferedUpdate& update);
// What a restart of the computer does to the agent: what waited for it is complete, or lost.
void RestartAgent();
// "searched", "downloaded", "installed" with the number of updates, one a line, in order, of this process.
std::string AgentWork();
// The agent's operations that have not ended, in this process.
int LiveAgentOperations();

}  // namespace sim
