// What Windows promises, asked of whatever it is linked with: the simulated Windows (in ./test), Wine, or a real one.
// A case makes correct calls alone and expects documented answers; time is real, and what it makes bears a name that
// begins with "NorvaneProof" and is gone at its end.
#pragma once

#include "win32/winapi.h"

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace contract {

enum class Platform { kSimulation, kWine, kWindows };
Platform ThisPlatform() noexcept;
const char* Name(Platform platform) noexcept;

enum class Verdict {
  kHeld,
  kBroken,
  kKnown,  // broken where somebody has noted why
  kCouldNotRun,
};
const char* Name(Verdict verdict) noexcept;

// The questions of one case and their answers.
class Asked {
 public:
  // The answer must be the promise; numbers are Windows errors for the most part, and are compared by their bits.
  template <std::integral Answer, std::integral Promise>
  void Same(const char* what, Answer answer, Promise promise) {
    Judge(what, Bits(answer), {Bits(promise)});
  }
  void Same(const char* what, const std::wstring& answer, const std::wstring& promise);
  template <std::integral Answer>
  void OneOf(const char* what, Answer answer, std::initializer_list<std::uint64_t> promises) {
    Judge(what, Bits(answer), promises);
  }
  // A call that is to fail with one of these errors.
  void Fails(const char* what, bool done, std::initializer_list<std::uint64_t> errors) {
    OneOf(what, done ? ERROR_SUCCESS : GetLastError(), errors);
  }
  void True(const char* what, bool answer) { Same(what, answer ? 1 : 0, 1); }
  // An open question: no page answers it. The answer goes into the report, where that of another platform can be set
  // beside it.
  void Tells(const char* what, std::uint64_t answer);

  // Ends the case: this computer cannot show it.
  [[noreturn]] static void CannotRun(const std::string& why);
  // The same unless `there`, with the last Windows error in the reason.
  static void Needs(bool there, const char* what);

  // This platform is known not to keep the promise. Once it keeps it the case is broken: the mark has to go.
  void KnownWrong(Platform platform, const char* why);

 private:
  friend struct Case;
  template <std::integral Number>
  static std::uint64_t Bits(Number number) {
    return static_cast<std::make_unsigned_t<Number>>(number);
  }
  void Judge(const char* what, std::uint64_t answer, std::initializer_list<std::uint64_t> promises);
  std::vector<std::string> broken_;
  std::vector<std::string> told_;
  std::string known_;
};

struct Result {
  Verdict verdict;
  std::string why;  // what was asked and answered, or why it could not run; of one that held, answers to open questions
};

struct Case {
  const char* name;
  const char* promise;
  void (*run)(Asked& asked);

  [[nodiscard]] Result Run() const;
};

struct Group {
  const char* name;
  std::span<const Case> cases;
};

// All groups, in the order in which they run.
std::span<const Group* const> Groups() noexcept;

// Runs when the scope ends, also when the case ended early.
class AtEnd {
 public:
  explicit AtEnd(std::function<void()> action) : action_(std::move(action)) {}
  AtEnd(const AtEnd&) = delete;
  AtEnd& operator=(const AtEnd&) = delete;
  ~AtEnd() { action_(); }

 private:
  std::function<void()> action_;
};

// A new empty folder that goes, with all that is in it, at the end.
class Folder {
 public:
  Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder();
  [[nodiscard]] std::wstring Path(const wchar_t* name) const { return path_ + L"\\" + name; }
  // A file with this content.
  [[nodiscard]] std::wstring File(const wchar_t* name, const char* content = "content") const;

 private:
  std::wstring path_;
};

}  // namespace contract
