// The Windows Update Agent of the simulated machine: area "WindowsUpdate", with an area "Updates\\<number>" for each
// update that is offered.
#pragma once

#include "sim/machine.h"

namespace sim {

inline constexpr wchar_t kUpdateArea[] = L"WindowsUpdate";

enum AgentStage { kSearch, kDownload, kInstall };
struct Agent {
  // HRESULTs: of what makes an object, and by stage of its beginning and of the operation's result.
  Field<> failSession{kUpdateArea, L"Fail session"}, failSearcher{kUpdateArea, L"Fail searcher"};
  Field<> failCollection{kUpdateArea, L"Fail collection"}, failDownloader{kUpdateArea, L"Fail downloader"};
  Field<> failInstaller{kUpdateArea, L"Fail installer"}, failSystem{kUpdateArea, L"Fail system"};
  Field<> failCommit{kUpdateArea, L"Fail commit"};
  Field<> failBegin[3] = {
      {kUpdateArea, L"Fail searchBegin"}, {kUpdateArea, L"Fail downloadBegin"}, {kUpdateArea, L"Fail installBegin"}};
  Field<> fail[3] = {{kUpdateArea, L"Fail search"}, {kUpdateArea, L"Fail download"}, {kUpdateArea, L"Fail install"}};
  // Milliseconds; INFINITE: until they are aborted.
  Field<> duration[3] = {
      {kUpdateArea, L"Duration search"}, {kUpdateArea, L"Duration download"}, {kUpdateArea, L"Duration install"}};
  Field<> durationCommit{kUpdateArea, L"Duration commit"};
  Field<> codeSearch{kUpdateArea, L"Code search"};  // the OperationResultCode of a search that succeeds; 0: its own
  Field<> stubborn{kUpdateArea, L"Stubborn"};       // an abort is ignored
  Field<> installerBusy{kUpdateArea, L"InstallerBusy"}, rebootRequired{kUpdateArea, L"RebootRequired"};
  Field<> committed{kUpdateArea, L"Committed"};  // since the last restart
  Field<std::wstring> client{kUpdateArea, L"Client"};
};
inline const Agent agent{};

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
