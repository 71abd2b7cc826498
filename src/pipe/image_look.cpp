#include "pipe/image_look.h"

#include "pipe/signature.h"
#include "win32/clock.h"
#include "win32/local_path.h"
#include "win32/lock.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

namespace kiosk::pipe {
namespace {

using win32::LockGuard;
using win32::WaitResult;
using Result = ImageLook::Result;

constexpr std::size_t kImagePathSize = 520;
constexpr LONGLONG kLargestImage = LONGLONG{512} * 1024 * 1024;
constexpr DWORD kTurnPoll = 20;
constexpr DWORD kShortestLook = 1000;
// So that one large file does not keep those waiting who come from another.
constexpr std::ptrdiff_t kLooksOfSession = 4;

// One look; the thread that looks and the connection that waits hold it together.
struct Look {
  std::shared_ptr<const win32::KernelHandle> process;
  ImageLook image;  // but for its path, which stays, the thread's until it has ended
};

struct SessionLook {
  DWORD session;
  const Look* look;
  bool leftBehind;
};

win32::Lock lock{win32::LockRank::kLeaf};
// One for each look that has not ended. Never destroyed: a look may outlive main.
std::vector<SessionLook>& SessionLooks() REQUIRES(lock) {
  static auto* const looks = new std::vector<SessionLook>;
  return *looks;
}

enum class Turn { kMine, kWait, kNever };

Turn TakeTurn(DWORD session, const Look* look) {
  const LockGuard guard(lock);
  std::vector<SessionLook>& looks = SessionLooks();
  std::ptrdiff_t going = 0;
  std::ptrdiff_t leftBehind = 0;
  for (const SessionLook& each : looks) {
    if (each.session == session) {
      if (each.look->image.path == look->image.path) {
        return each.leftBehind ? Turn::kNever : Turn::kWait;
      }
      ++going;
      leftBehind += each.leftBehind ? 1 : 0;
    }
  }
  if (going == kLooksOfSession) {
    return leftBehind == going ? Turn::kNever : Turn::kWait;
  }
  looks.push_back({session, look, false});
  return Turn::kMine;
}

void LeaveBehind(const Look* look) noexcept {
  const LockGuard guard(lock);
  for (SessionLook& each : SessionLooks()) {
    each.leftBehind = each.leftBehind || each.look == look;
  }
}

void GiveTurnBack(const Look* look) noexcept {
  const LockGuard guard(lock);
  std::erase_if(SessionLooks(), [look](const SessionLook& each) { return each.look == look; });
}

// Empty when the process has no image any more.
std::wstring ImagePath(HANDLE process) {
  std::array<wchar_t, kImagePathSize> path{};
  DWORD size = path.size();
  return QueryFullProcessImageNameW(process, 0, path.data(), &size) != 0 ? std::wstring(path.data(), size)
                                                                         : std::wstring();
}

// The image is held against writing, deleting and renaming until both of its signature reads are over, and it must
// still be the image of that process once it is held. What is not local is not opened: its server would be shown the
// computer's own credentials.
Result Judge(HANDLE process, ImageLook& image) {
  const win32::FileHandle file = win32::IsLocalPath(image.path) ? HoldImage(image.path.c_str()) : win32::FileHandle();
  if (!file) {
    return Result::kNotValid;
  }
  if (ImagePath(process) != image.path) {
    return Result::kGone;
  }
  LARGE_INTEGER size{};
  if (GetFileSizeEx(file.Get(), &size) == 0 || size.QuadPart > kLargestImage) {
    return Result::kNotValid;
  }
  std::optional<std::wstring> publisher = TrustedPublisherOfFile(image.path.c_str(), file.Get());
  if (!publisher) {
    return Result::kNotValid;
  }
  image.publisher = std::move(*publisher);
  return Result::kTrusted;
}

void LookNow(Look& look) noexcept {
  try {
    look.image.result = Judge(look.process->Get(), look.image);
  } catch (const std::exception&) {
    look.image.result = Result::kNotValid;  // no memory
  }
  GiveTurnBack(&look);
}

win32::KernelHandle StartLooking(const std::shared_ptr<Look>& look) noexcept {
  try {
    return win32::StartThread([look]() noexcept { LookNow(*look); }, win32::kSmallStack);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

ImageLook LookAtImage(std::shared_ptr<const win32::KernelHandle> process, DWORD session, const Patience& patience) {
  const win32::Deadline deadline(std::max(kShortestLook, patience.deadline.Left()));
  ImageLook unknown;
  unknown.path = ImagePath(process->Get());
  if (unknown.path.empty()) {
    unknown.result = Result::kGone;
    return unknown;
  }
  // Nobody begins a look that he would leave behind at once.
  if (win32::WaitOrStop(nullptr, 0, patience.end) == WaitResult::kStop) {
    return unknown;
  }
  const auto look = std::make_shared<Look>(Look{std::move(process), unknown});
  for (Turn turn = TakeTurn(session, look.get()); turn != Turn::kMine; turn = TakeTurn(session, look.get())) {
    if (turn == Turn::kNever || deadline.Passed() ||
        win32::WaitOrStop(nullptr, std::min(kTurnPoll, deadline.Left()), patience.end) == WaitResult::kStop) {
      return unknown;
    }
  }
  const win32::KernelHandle thread = StartLooking(look);
  if (!thread) {
    GiveTurnBack(look.get());
    return unknown;
  }
  if (win32::WaitOrStop(thread.Get(), deadline.Left(), patience.end) != WaitResult::kSignaled) {
    LeaveBehind(look.get());
    return unknown;
  }
  return std::move(look->image);
}

}  // namespace kiosk::pipe
