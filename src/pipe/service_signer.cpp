#include "pipe/service_signer.h"

#include "log/log.h"
#include "pipe/signature.h"
#include "win32/program_path.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <atomic>
#include <exception>
#include <string>
#include <utility>

namespace kiosk::pipe {
namespace {

using log::kKiosk;

constexpr DWORD kLookAgain = 5000;
constexpr DWORD kStartWait = 6000;  // so that a second look counts: a scanner may have the file for a moment

// Null until the service's file could be read; made once by the thread that looks, then only read. An empty publisher:
// not signed. Never destroyed: connection threads may outlive main.
std::atomic<const std::wstring*> servicePublisher{nullptr};
// The start did not wait for the answer.
std::atomic<bool> late{false};

// False when the file could not be read.
bool LookOnce() {
  const std::wstring path = win32::ProgramPath();
  const win32::FileHandle image = HoldImage(path.c_str());
  FileSignature signature;
  if (image) {
    signature = ReadSignature(path.c_str(), image.Get());
  }
  if (signature.verdict == Verdict::kUnreadable) {
    return false;
  }
  const bool isSigned = !signature.publisher.empty();
  servicePublisher.store(new std::wstring(std::move(signature.publisher)));
  if (!isSigned) {
    log::Log(log::kWarn, kKiosk,
             "this service is not signed (a dev build): it admits callers only while DevAllowUnsigned=1");
  } else if (late.load()) {
    log::Log(log::kNotice, kKiosk, "this service's own signature could be read: it admits callers now");
  }
  return true;
}

void LookUntilKnown() noexcept {
  bool known = false;
  do {
    try {
      known = LookOnce();
    } catch (const std::exception& problem) {
      log::Log(log::kError, kKiosk, "the look at this service's own signature ended early (%s)", problem.what());
    }
  } while (!known && win32::WaitOrStop(nullptr, kLookAgain) != win32::WaitResult::kStop);
}

}  // namespace

void LearnServiceSigner() {
  // Left behind when it takes longer: somebody may hold the file for as long as he likes.
  const win32::KernelHandle thread = win32::StartThread([]() noexcept { LookUntilKnown(); });
  if (!thread) {
    log::Log(log::kError, kKiosk, "cannot start the look at this service's own signature (%lu)", GetLastError());
    log::EndProcess(1);
  }
  if (win32::WaitOrStop(thread.Get(), kStartWait) == win32::WaitResult::kTimeout) {
    late.store(true);
    log::Log(log::kWarn, kKiosk, "this service's own signature cannot be read: it admits no callers until it can");
  }
}

ServiceSignature SignatureOfService() noexcept {
  const std::wstring* publisher = servicePublisher.load();
  return publisher == nullptr ? ServiceSignature::kUnknown
         : publisher->empty() ? ServiceSignature::kUnsigned
                              : ServiceSignature::kSigned;
}

bool IsServicePublisher(std::wstring_view publisher) noexcept {
  return SignatureOfService() == ServiceSignature::kSigned && publisher == *servicePublisher.load();
}

}  // namespace kiosk::pipe
