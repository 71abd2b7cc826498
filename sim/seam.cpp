#include "sim/seam.h"

#include "sim/machine.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace sim {
namespace {

std::mutex mutex;
std::string collected;
bool collecting = false;
ViolationHandler handler = nullptr;
std::atomic<bool> violated{false};

}  // namespace

void SetViolationHandler(ViolationHandler newHandler) { handler = newHandler; }

void Violation(const char* format, ...) {  // NOLINT(cert-dcl50-cpp): the compiler checks the format
  char sentence[1024];
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(std::vsnprintf(sentence, sizeof(sentence), format, arguments));
  va_end(arguments);
  {
    const std::lock_guard guard(mutex);
    if (collecting) {
      collected += sentence;
      collected += '\n';
      return;
    }
  }
  static_cast<void>(std::fprintf(stderr, "simulated Windows: %s\n", sentence));
  static_cast<void>(std::fflush(stderr));
  const std::wstring wide(sentence, sentence + std::char_traits<char>::length(sentence));
  WriteText(L"Violations", std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(GetTickCount64()), wide);
  if (!violated.exchange(true)) {
    // The process may still return 0 from main when no test framework listens.
    static_cast<void>(std::atexit([] { TerminateProcess(GetCurrentProcess(), kViolationExitCode); }));
  }
  if (handler != nullptr) {
    handler(sentence);
  }
}

CatchViolations::CatchViolations() {
  const std::lock_guard guard(mutex);
  collecting = true;
}

CatchViolations::~CatchViolations() {
  const std::lock_guard guard(mutex);
  collecting = false;
  collected.clear();
}

std::string CatchViolations::Take() {
  const std::lock_guard guard(mutex);
  return std::exchange(collected, {});
}

std::string Narrow(const std::wstring& text) {
  const int length = static_cast<int>(text.size());
  std::string narrow(text.size() * 3, '\0');
  const int used = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(), length * 3, nullptr, nullptr);
  narrow.resize(static_cast<std::size_t>(used));
  return narrow;
}

}  // namespace sim

SIM(__attribute__((noreturn)) void, ExitProcess, UINT code) {
  ::ExitProcess(code == 0 && sim::violated ? static_cast<UINT>(sim::kViolationExitCode) : code);
}
