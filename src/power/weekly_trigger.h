// The weekly trigger of Task Scheduler 2.0 for headers that lack it. Documented as IWeeklyTrigger; where the Windows
// headers have it, theirs is used.
#pragma once

#include "win32/winapi.h"

#include <oleauto.h>
#include <taskschd.h>

// NOLINTBEGIN: the names are Windows', the guard among them
#ifndef __IWeeklyTrigger_INTERFACE_DEFINED__
#define __IWeeklyTrigger_INTERFACE_DEFINED__

inline constexpr IID IID_IWeeklyTrigger{0x5038FC98, 0x82FF, 0x436D, {0x87, 0x28, 0xA5, 0x12, 0xA5, 0x7C, 0x9D, 0xC1}};

#if defined(__cplusplus) && !defined(CINTERFACE)
struct IWeeklyTrigger : public ITrigger {
  // Bit 0 is Sunday, bit 6 is Saturday.
  virtual HRESULT STDMETHODCALLTYPE get_DaysOfWeek(short* days) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DaysOfWeek(short days) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_WeeksInterval(short* weeks) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_WeeksInterval(short weeks) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RandomDelay(BSTR* delay) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RandomDelay(BSTR delay) = 0;
};
#endif

#endif
// NOLINTEND
