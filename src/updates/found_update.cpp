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

}  // namespace

bool IsBrowseOnly(IUpdate* update) {
  void* newer = nullptr;
  if (FAILED(update->QueryInterface(__uuidof(IUpdate3), &newer))) {
    return false;
  }
  const win32::ComPtr<IUpdate3> owner(static_cast<IUpdate3*>(newer));
  VARIANT_BOOL browseOnly = VARIANT_FALSE;
  return SUCCEEDED(owner->get_BrowseOnly(&browseOnly)) && browseOnly != VARIANT_FALSE;
}

std::string TitleOf(IUpdate* update) {
  win32::Bstr title;
  return SUCCEEDED(update->get_Title(title.Put())) ? win32::ToNarrow(win32::BstrText(title.Get())) : std::string();
}

PendingUpdate ReadUpdate(IUpdate* update) {
  PendingUpdate entry{IdOf(update), TitleOf(update), SizeOf(update), true, true};
  win32::ComPtr<IInstallationBehavior> behaviour;
  if (FAILED(update->get_InstallationBehavior(behaviour.Put())) || !behaviour) {
    return entry;
  }
  InstallationRebootBehavior reboot = irbCanRequestReboot;
  VARIANT_BOOL asks = VARIANT_TRUE;
  entry.mayRestart = FAILED(behaviour->get_RebootBehavior(&reboot)) || reboot != irbNeverReboots;
  entry.mayAsk = FAILED(behaviour->get_CanRequestUserInput(&asks)) || asks != VARIANT_FALSE;
  return entry;
}

HRESULT AcceptTerms(IUpdate* update) {
  VARIANT_BOOL accepted = VARIANT_FALSE;
  const HRESULT asked = update->get_EulaAccepted(&accepted);
  return SUCCEEDED(asked) && accepted != VARIANT_FALSE ? S_OK : update->AcceptEula();
}

}  // namespace kiosk::updates
