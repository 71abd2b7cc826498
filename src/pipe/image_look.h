// The look at a caller's program file, on a thread that can be left behind. Whoever holds an opportunistic lock on a
// file makes everybody else's opening of it wait until he gives the lock up, an ordinary user too and without a time
// limit, and a large file takes long to be hashed.
#pragma once

#include "win32/clock.h"
#include "win32/handle.h"

#include <memory>
#include <string>

namespace kiosk::pipe {

// How long a connection waits for what is done for its caller.
struct Patience {
  win32::Deadline deadline;
  HANDLE end = nullptr;  // an event that ends the wait as a stop does; null: none
};

struct ImageLook {
  enum class Result {
    kGone,      // the process has no program file, or another one than when the look began
    kNotValid,  // no signature that Windows trusts, no local file, one that is too large, or no answer in time
    kTrusted,   // `publisher` signed it
  };
  Result result = Result::kNotValid;
  std::wstring path;
  std::wstring publisher;
};

// Looks at the program file of a process of the Windows session. In each session there are at most four looks at a
// time, and one at each file; others wait for their turn. Once a look was left behind, its file is not looked at again
// for the session until that look has ended, and nothing is once four were: the answer is kNotValid at once. Waits
// until the deadline, or for a second if that is later. Any thread.
ImageLook LookAtImage(std::shared_ptr<const win32::KernelHandle> process, DWORD session, const Patience& patience);

}  // namespace kiosk::pipe
