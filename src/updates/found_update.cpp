#include "updates/found_update.h"

#include "win32/com.h"
#include "win32/wide_text.h"

namespace kiosk::updates {
namespace {

std::string IdOf(IUpdate* update) {
  win32::ComPtr<IUpdateIdentity> identity;
  win32::Bstr id;
  return SUCCEEDED(update->get_Identity(identity.Put())) && identity && SUCCEEDED(identity->get_UpdateID(id.Put()))
             ? win32::ToNarrow(win32::BstrText(id.Get()))
             : std::string();
}

std::uint64_t SizeOf(IUpdate* update) {
  DECIMAL size{};
  ULONG64 bytes = 0;
  return SUCCEEDED(update->get_MaxDownloadSize(&size)) && SUCCEEDED(VarUI8FromDec(&size, &bytes)) ? bytes : 0;
}

std::string TitleOf(IUpdate* update) {
  win32::Bstr title;
  return SUCCEEDED(update->get_Title(title.Put())) ? win32::ToNarrow(win32::BstrText(title.Get())) : std::string();
}

}  // namespace

bool IsBrowseOnly(const win32::ComPtr<IUpdate>& update) {
  win32::ComPtr<IUpdate3> newer;
  VARIANT_BOOL browseOnly = VARIANT_FALSE;
  return SUCCEEDED(update.As(__uuidof(IUpdate3), newer)) && newer && SUCCEEDED(newer->get_BrowseOnly(&browseOnly)) &&
         browseOnly != VARIANT_FALSE;
}

FoundUpdate ReadUpdate(const win32::ComPtr<IUpdate>& update) {
  FoundUpdate found{update, {IdOf(update.Get()), TitleOf(update.Get()), SizeOf(update.Get()), true, true}};
  win32::ComPtr<IInstallationBehavior> behaviour;
  if (FAILED(update->get_InstallationBehavior(behaviour.Put()))) {
    return found;
  }
  if (!behaviour) {  // documented: there need not be one
    found.entry.mayAsk = false;
    return found;
  }
  InstallationRebootBehavior reboot = irbCanRequestReboot;
  VARIANT_BOOL asks = VARIANT_TRUE;
  InstallationImpact impact = iiNormal;
  found.entry.mayRestart = FAILED(behaviour->get_RebootBehavior(&reboot)) || reboot != irbNeverReboots;
  found.entry.mayAsk = FAILED(behaviour->get_CanRequestUserInput(&asks)) || asks != VARIANT_FALSE;
  found.exclusive = SUCCEEDED(behaviour->get_Impact(&impact)) && impact == iiRequiresExclusiveHandling;
  return found;
}

HRESULT AcceptTerms(IUpdate* update) {
  VARIANT_BOOL accepted = VARIANT_FALSE;
  const HRESULT asked = update->get_EulaAccepted(&accepted);
  return SUCCEEDED(asked) && accepted != VARIANT_FALSE ? S_OK : update->AcceptEula();
}

}  // namespace kiosk::updates
