// The interfaces of the Windows Update Agent, completed: the distribution's header has those of the first version only.
// Each declaration stands aside for a header that has it. The methods and their order are those of the public reference
// of wuapi.h (https://learn.microsoft.com/windows/win32/api/wuapi/).
#pragma once

#include "win32/winapi.h"

#include <objbase.h>
#include <oleauto.h>
#include <wuapi.h>

#ifdef __CRT_UUID_DECL
#define NORVANE_UUID(...) __CRT_UUID_DECL(__VA_ARGS__)
#else
#define NORVANE_UUID(...)
#endif

// NOLINTBEGIN(readability-identifier-naming): theirs

#ifndef __IUpdate2_INTERFACE_DEFINED__
MIDL_INTERFACE("144fe9b0-d23d-4a8b-8634-fb4457533b7a")
IUpdate2 : public IUpdate {
  virtual HRESULT STDMETHODCALLTYPE get_RebootRequired(VARIANT_BOOL * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsPresent(VARIANT_BOOL * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_CveIDs(IStringCollection * *value) = 0;
  virtual HRESULT STDMETHODCALLTYPE CopyToCache(IStringCollection * files) = 0;
};
NORVANE_UUID(IUpdate2, 0x144fe9b0, 0xd23d, 0x4a8b, 0x86, 0x34, 0xfb, 0x44, 0x57, 0x53, 0x3b, 0x7a)
#endif

#ifndef __IUpdate3_INTERFACE_DEFINED__
MIDL_INTERFACE("112eda6b-95b3-476f-9d90-aee82c6b8181")
IUpdate3 : public IUpdate2 { virtual HRESULT STDMETHODCALLTYPE get_BrowseOnly(VARIANT_BOOL * value) = 0; };
NORVANE_UUID(IUpdate3, 0x112eda6b, 0x95b3, 0x476f, 0x9d, 0x90, 0xae, 0xe8, 0x2c, 0x6b, 0x81, 0x81)
#endif

#ifndef __IUpdateInstaller2_INTERFACE_DEFINED__
MIDL_INTERFACE("3442d4fe-224d-4cee-98cf-30e0c4d229e6")
IUpdateInstaller2 : public IUpdateInstaller {
  virtual HRESULT STDMETHODCALLTYPE get_ForceQuiet(VARIANT_BOOL * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ForceQuiet(VARIANT_BOOL value) = 0;
};
NORVANE_UUID(IUpdateInstaller2, 0x3442d4fe, 0x224d, 0x4cee, 0x98, 0xcf, 0x30, 0xe0, 0xc4, 0xd2, 0x29, 0xe6)
#endif

#ifndef __IUpdateInstaller3_INTERFACE_DEFINED__
MIDL_INTERFACE("16d11c35-099a-48d0-8338-5fae64047f8e")
IUpdateInstaller3 : public IUpdateInstaller2 {
  virtual HRESULT STDMETHODCALLTYPE get_AttemptCloseAppsIfNecessary(VARIANT_BOOL * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AttemptCloseAppsIfNecessary(VARIANT_BOOL value) = 0;
};
NORVANE_UUID(IUpdateInstaller3, 0x16d11c35, 0x099a, 0x48d0, 0x83, 0x38, 0x5f, 0xae, 0x64, 0x04, 0x7f, 0x8e)
#endif

#ifndef __IUpdateInstaller4_INTERFACE_DEFINED__
MIDL_INTERFACE("ef8208ea-2304-492d-9109-23813b0958e1")
IUpdateInstaller4 : public IUpdateInstaller3 { virtual HRESULT STDMETHODCALLTYPE Commit(DWORD flags) = 0; };
NORVANE_UUID(IUpdateInstaller4, 0xef8208ea, 0x2304, 0x492d, 0x91, 0x09, 0x23, 0x81, 0x3b, 0x09, 0x58, 0xe1)
#endif

// The arguments of a completion hold nothing.
#ifndef __ISearchCompletedCallback_INTERFACE_DEFINED__
MIDL_INTERFACE("a700a634-2850-4c47-938a-9e4b6e5af9a6")
ISearchCompletedCallbackArgs : public IDispatch{};
MIDL_INTERFACE("88aee058-d4b0-4725-a2f1-814a67ae964c")
ISearchCompletedCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Invoke(ISearchJob * job, ISearchCompletedCallbackArgs * args) = 0;
};
NORVANE_UUID(ISearchCompletedCallback, 0x88aee058, 0xd4b0, 0x4725, 0xa2, 0xf1, 0x81, 0x4a, 0x67, 0xae, 0x96, 0x4c)
#endif

#ifndef __IDownloadCompletedCallback_INTERFACE_DEFINED__
MIDL_INTERFACE("fa565b23-498c-47a0-979d-e7d5b1813360")
IDownloadCompletedCallbackArgs : public IDispatch{};
MIDL_INTERFACE("77254866-9f5b-4c8e-b9e2-c77a8530d64b")
IDownloadCompletedCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Invoke(IDownloadJob * job, IDownloadCompletedCallbackArgs * args) = 0;
};
NORVANE_UUID(IDownloadCompletedCallback, 0x77254866, 0x9f5b, 0x4c8e, 0xb9, 0xe2, 0xc7, 0x7a, 0x85, 0x30, 0xd6, 0x4b)
#endif

#ifndef __IDownloadProgressChangedCallback_INTERFACE_DEFINED__
MIDL_INTERFACE("324ff2c6-4981-4b04-9412-57481745ab24")
IDownloadProgressChangedCallbackArgs : public IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Progress(IDownloadProgress * *value) = 0;
};
MIDL_INTERFACE("8c3f1cdd-6173-4591-aebd-a56a53ca77c1")
IDownloadProgressChangedCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Invoke(IDownloadJob * job, IDownloadProgressChangedCallbackArgs * args) = 0;
};
NORVANE_UUID(IDownloadProgressChangedCallback, 0x8c3f1cdd, 0x6173, 0x4591, 0xae, 0xbd, 0xa5, 0x6a, 0x53, 0xca, 0x77,
             0xc1)
#endif

#ifndef __IInstallationCompletedCallback_INTERFACE_DEFINED__
MIDL_INTERFACE("250e2106-8efb-4705-9653-ef13c581b6a1")
IInstallationCompletedCallbackArgs : public IDispatch{};
MIDL_INTERFACE("45f4f6f3-d602-4f98-9a8a-3efa152ad2d3")
IInstallationCompletedCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Invoke(IInstallationJob * job, IInstallationCompletedCallbackArgs * args) = 0;
};
NORVANE_UUID(IInstallationCompletedCallback, 0x45f4f6f3, 0xd602, 0x4f98, 0x9a, 0x8a, 0x3e, 0xfa, 0x15, 0x2a, 0xd2, 0xd3)
#endif

#ifndef __IInstallationProgressChangedCallback_INTERFACE_DEFINED__
MIDL_INTERFACE("e4f14e1e-689d-4218-a0b9-bc189c484a01")
IInstallationProgressChangedCallbackArgs : public IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Progress(IInstallationProgress * *value) = 0;
};
MIDL_INTERFACE("e01402d5-f8da-43ba-a012-38894bd048f1")
IInstallationProgressChangedCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Invoke(IInstallationJob * job, IInstallationProgressChangedCallbackArgs * args) = 0;
};
NORVANE_UUID(IInstallationProgressChangedCallback, 0xe01402d5, 0xf8da, 0x43ba, 0xa0, 0x12, 0x38, 0x89, 0x4b, 0xd0, 0x48,
             0xf1)
#endif

// NOLINTEND(readability-identifier-naming)

namespace kiosk::updates {

inline constexpr CLSID kUpdateCollectionClass = {
    0x13639463, 0x00db, 0x4646, {0x80, 0x3d, 0x52, 0x80, 0x26, 0x14, 0x0d, 0x88}};

}  // namespace kiosk::updates
