// Faults: every call that changes the machine is numbered, on the thread that a FaultPass arms, from 1. The pass fails
// the call of one number or ends the process right before or after it. Files of the log do not count.
#pragma once

#include "sim/seam.h"

#include <string>
#include <type_traits>
#include <vector>

namespace sim {

enum class FaultKind { kCount, kFail, kEndBefore, kEndAfter };

// The exit code of a process that a fault ended.
inline constexpr UINT kFaultExitCode = 86;

struct ChangeCall {
  std::string function;
  std::wstring object;  // "HKLM\\SOFTWARE\\X\\value", a path, a service

  [[nodiscard]] std::string Text() const { return function + "(" + Narrow(object) + ")"; }
};

class FaultPass {
 public:
  // `at` and `error` are of no matter for kCount; the error is reported in the way of the call that fails.
  explicit FaultPass(FaultKind kind = FaultKind::kCount, int at = 0, DWORD error = ERROR_ACCESS_DENIED);
  // Fails the first call whose text contains `call`; that there was none is a violation.
  FaultPass(const char* call, DWORD error) : FaultPass(FaultKind::kFail, 0, error) { wanted_ = call; }
  FaultPass(const FaultPass&) = delete;
  FaultPass& operator=(const FaultPass&) = delete;
  ~FaultPass();

  [[nodiscard]] int Count() const { return static_cast<int>(calls_.size()); }
  [[nodiscard]] const std::vector<ChangeCall>& Calls() const { return calls_; }
  [[nodiscard]] std::vector<std::string> Texts() const;
  // Whether after the last write (or deletion) of the value its key was flushed. False when it was not written.
  [[nodiscard]] bool Flushed(const std::wstring& valueName) const;

 private:
  friend class ChangePoint;
  FaultKind kind_;
  int at_;
  DWORD error_;
  std::string wanted_;
  std::vector<ChangeCall> calls_;
};

// Goes by before every such call of a thread without a pass, on that thread; what it returns is reported instead of
// making the call, and 0 makes it. Null: none. To be set while no other thread makes such calls.
using ChangeHook = DWORD (*)(const ChangeCall& call);
void SetChangeHook(ChangeHook hook);

// For the simulation's own functions: one call that changes the machine.
class ChangePoint {
 public:
  static bool Armed();
  ChangePoint(const char* function, std::wstring object);  // may end the process
  ~ChangePoint();                                          // may end the process
  // What to report instead of making the call; 0: make it.
  [[nodiscard]] DWORD Error() const { return error_; }

 private:
  bool endAfter_ = false;
  DWORD error_ = 0;
};

// Makes `call` as a numbered change. A failure is returned as a result of its type is: FALSE or null with the last
// error, or the error itself. `object` is the text for messages, or what makes it in a pass.
template <typename Result, typename Object, typename Call>
Result Change(const char* function, const Object& object, Call call) {
  if (!ChangePoint::Armed()) {
    return call();
  }
  const ChangePoint point(function, [&]() -> std::wstring {
    if constexpr (std::is_invocable_v<Object>) {
      return object();
    } else {
      return object;
    }
  }());
  if (point.Error() == 0) {
    return call();
  }
  if constexpr (std::is_same_v<Result, BOOL> || std::is_pointer_v<Result>) {
    SetLastError(point.Error());
    return Result{};
  } else {
    return static_cast<Result>(point.Error());
  }
}

// Reads of the registry that fail, as they do when Windows is short of memory: those of the values of that name, in any
// key, or of all values of a key, named by its path below HKLM. In its lifetime the next `spared` ones succeed, and of
// those after them `times` fail, by default all.
class FailingReads {
 public:
  explicit FailingReads(const wchar_t* valueNameOrKey, LSTATUS error, int times = -1, int spared = 0);
  [[nodiscard]] bool Happened() const;  // whether one has failed
  FailingReads(const FailingReads&) = delete;
  FailingReads& operator=(const FailingReads&) = delete;
  ~FailingReads();
};

// The object text of a registry key, a value of it, or a key below it.
std::wstring RegistryObject(HKEY key, const wchar_t* subkey, const wchar_t* value = nullptr);

}  // namespace sim
