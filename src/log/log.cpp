#include "log/log.h"

#include "log/day_files.h"
#include "log/housekeeping.h"
#include "log/identity.h"
#include "log/local_log.h"
#include "log/log_settings.h"
#include "log/shipper/shipper.h"
#include "state/folders.h"
#include "text/text.h"
#include "win32/clock.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

namespace kiosk::log {
namespace {

constexpr std::size_t kTextSize = 2048;   // of time stamp, message and terminator together
constexpr std::size_t kStampLength = 15;  // "[HH:MM:SS.mmm] "
constexpr std::size_t kLongestLabel = 6;  // "ERROR "
constexpr std::size_t kRaiseLength = 191;
constexpr std::uint64_t kPruneInterval = 3'600'000;
constexpr unsigned kShipperStopWait = 2000;

constexpr const char* kFailureWords[] = {"fail",      "error",   "denied",    "refused", "timed out", "timeout",
                                         "unable to", "cannot ", "exception", "aborted", "not found", "invalid"};

struct LogFolder {
  const wchar_t* path;
  win32::ForeignFolder foreign;
};

// The tree, outermost first, so that each folder is made inside one that is already secured. The outer two are shared
// with other programs of the maker, whose content stays.
constexpr LogFolder kFolders[] = {
    {state::kMakerFolder, win32::ForeignFolder::kTakeOver}, {state::kProductFolder, win32::ForeignFolder::kTakeOver},
    {state::kLogRoot, win32::ForeignFolder::kSetAside},     {state::kLogArchive, win32::ForeignFolder::kSetAside},
    {state::kLogDrop, win32::ForeignFolder::kSetAside},     {state::kLogDropTaken, win32::ForeignFolder::kSetAside},
};

enum class Ready { kNo, kRunning, kYes };

// Written by the one thread that initialises, before `ready` says so; only read afterwards.
UnsecuredFolder unsecuredAtStart;
bool central = false;

// The same, and later at most once from false to true, on the pool's thread.
std::atomic<bool> secured{false};
std::atomic<bool> localFiles{false};

std::atomic<Ready> ready{Ready::kNo};
std::atomic<std::uint64_t> nextPrune{0};

// Kept for the banner; leaked on purpose, since detached threads may log while static objects would be destroyed.
const Identity* identity = nullptr;

// The handles stay open for the life of the process: nobody can then swap a folder on the way to the files.
UnsecuredFolder SecureLogTree() noexcept {
  CreateDirectoryW(L"C:\\ProgramData", nullptr);
  std::array<win32::FileHandle, std::size(kFolders)> held;
  for (std::size_t i = 0; i < held.size(); ++i) {
    win32::FolderResult result = win32::SecureFolder(kFolders[i].path, win32::kPrivateFolderSddl, kFolders[i].foreign);
    if (!result) {
      return {kFolders[i].path, result.error};
    }
    held[i] = std::move(result.folder);
  }
  for (win32::FileHandle& folder : held) {
    static_cast<void>(folder.Release());
  }
  return {};
}

// Lines are written to the tree from now on.
void UseLogTree() {
  SYSTEMTIME today;
  GetLocalTime(&today);
  ArchiveOldFiles(today);
  localFiles = ReadSettingNumber(L"LocalLogging").value_or(1) != 0;
  secured = true;
}

void Initialise() {
  auto* mine = new Identity(ReadIdentity());
  identity = mine;
  // Without a secured tree nothing in it can be trusted: neither written, nor moved, nor pruned.
  unsecuredAtStart = SecureLogTree();
  if (unsecuredAtStart.path == nullptr) {
    UseLogTree();
    mine->install = LoadOrCreateInstallId(state::kLogRoot);
  } else {
    nextPrune = win32::TickCount() + kPruneInterval;
  }
  central = shipper::Start(*mine, secured);
}

void EnsureReady() noexcept {
  if (ready.load(std::memory_order_acquire) == Ready::kYes) {
    return;
  }
  Ready expected = Ready::kNo;
  if (ready.compare_exchange_strong(expected, Ready::kRunning)) {
    try {
      Initialise();
    } catch (const std::exception&) {
      localFiles = false;  // out of memory this early: there is nobody to tell
    }
    ready.store(Ready::kYes, std::memory_order_release);
    return;
  }
  while (ready.load(std::memory_order_acquire) != Ready::kYes) {
    Sleep(1);
  }
}

// Whoever was in the way may have gone. The identifier of the installation is in the records from the next start on.
bool SecureLogTreeLater() {
  if (SecureLogTree().path != nullptr) {
    return false;
  }
  UseLogTree();
  shipper::UseSpool();
  Log(kNotice, kKiosk, "log: %s is secured now; lines are kept in files", win32::ToNarrow(state::kLogRoot).c_str());
  return true;
}

DWORD WINAPI PruneItem(void* /*context*/) noexcept {
  try {
    if (secured || SecureLogTreeLater()) {
      Prune();
    }
  } catch (const std::exception& problem) {
    Log(kError, kKiosk, "log: prune ended early (%s)", problem.what());
  }
  return 0;
}

void PruneWhenDue(bool dayChanged) noexcept {
  const std::uint64_t now = win32::TickCount();
  std::uint64_t due = nextPrune.load();
  if (!dayChanged && now < due) {
    return;
  }
  // Of all threads that see it due, the one that moves it on queues the work.
  if (nextPrune.compare_exchange_strong(due, now + kPruneInterval)) {
    QueueUserWorkItem(PruneItem, nullptr, WT_EXECUTELONGFUNCTION);
  }
}

// The local time of a line that begins. Chooses the day and prunes when that is due.
SYSTEMTIME BeginLine() noexcept {
  EnsureReady();
  SYSTEMTIME now;
  GetLocalTime(&now);
  PruneWhenDue(secured && ChooseDay(now));
  return now;
}

bool HoldsFailureWord(std::string_view message) noexcept {
  std::array<char, kRaiseLength> lower;
  const std::size_t length = std::min(message.size(), lower.size());
  std::transform(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length), lower.begin(),
                 text::AsciiLower<char>);
  const std::string_view text(lower.data(), length);
  return std::any_of(std::begin(kFailureWords), std::end(kFailureWords),
                     [text](const char* word) { return text.find(word) != std::string_view::npos; });
}

std::string_view Label(int level) noexcept {
  if (level <= kError) {
    return "ERROR ";
  }
  if (level == kWarn) {
    return "WARN ";
  }
  return level < kDebug ? "INFO " : "DEBUG ";
}

// One line on its way, on the stack of the thread that logs. The label is known once the message is there: it and the
// time stamp are put before it, into room that was left for them.
struct LogLine {
  static constexpr std::size_t kFront = kStampLength + kLongestLabel;
  static constexpr std::size_t kRoom = kTextSize - kStampLength;  // for the message, and a terminator or line end

  std::array<char, kFront + kRoom> text;
  std::size_t length = 0;  // of the message
  int level = 0;

  [[nodiscard]] std::string_view Message() const noexcept { return {text.data() + kFront, length}; }

  // False when the format cannot be followed.
  NORVANE_PRINTF(3, 0)
  bool Format(int wantedLevel, const char* format, va_list arguments) noexcept {
    char* const message = text.data() + kFront;
    const int wanted = std::vsnprintf(message, kRoom, format, arguments);
    if (wanted < 0) {
      return false;
    }
    length = static_cast<std::size_t>(wanted);
    if (length >= kRoom) {
      length = text::CutLength({message, kRoom}, kRoom - 1);
    }
    text::MakeSingleLine(message, length);
    level = wantedLevel == kInfo && HoldsFailureWord(Message()) ? static_cast<int>(kError) : wantedLevel;
    return true;
  }

  void WriteLocal(const SYSTEMTIME& now, const char* component) noexcept {
    if (!localFiles) {
      return;
    }
    const std::string_view label = Label(level);
    std::array<char, kStampLength + 1> stamp;
    static_cast<void>(std::snprintf(stamp.data(), stamp.size(), "[%02d:%02d:%02d.%03d] ", now.wHour, now.wMinute,
                                    now.wSecond, now.wMilliseconds));
    const std::size_t front = kFront - kStampLength - label.size();
    std::memcpy(text.data() + front, stamp.data(), kStampLength);
    std::memcpy(text.data() + front + kStampLength, label.data(), label.size());
    text[kFront + length] = '\n';
    AppendLine(component, {text.data() + front, kFront + length + 1 - front});
  }
};

enum class Target { kEverywhere, kLocalFile };

NORVANE_PRINTF(5, 0)
void Write(const SYSTEMTIME& now, int level, const char* component, Target target, const char* format,
           va_list arguments) noexcept {
  LogLine line;
  if (line.Format(level, format, arguments)) {
    if (target == Target::kEverywhere) {
      shipper::HandOff(line.level, component, line.Message());
    }
    line.WriteLocal(now, component);
  }
}

}  // namespace

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style by contract, and checked as such at each call
void Log(int level, const char* component, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Write(BeginLine(), level, component, Target::kEverywhere, format, arguments);
  va_end(arguments);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): as above
void LogLocal(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Write(BeginLine(), level, kKiosk, Target::kLocalFile, format, arguments);
  va_end(arguments);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): as above
void LogFault(const char* format, ...) {
  SYSTEMTIME now;
  if (ready.load(std::memory_order_acquire) == Ready::kYes) {
    GetLocalTime(&now);
  } else {
    now = BeginLine();
  }
  va_list arguments;
  va_start(arguments, format);
  Write(now, kError, kKiosk, Target::kLocalFile, format, arguments);
  va_end(arguments);
}

void StartBanner(const char* component) {
  EnsureReady();
  Log(kNotice, component, "%s v%s starting", component, kVersion);
  if (identity != nullptr) {
    Log(kNotice, component, "machine=%s tenant=%s site=%s host=%s", identity->machine.c_str(), identity->tenant.c_str(),
        identity->site.c_str(), identity->host.c_str());
  }
  Log(kNotice, component, "Central logging: %s | local files: %s", central ? "on" : "off", localFiles ? "on" : "off");
  if (unsecuredAtStart.path != nullptr) {
    Log(kWarn, component, "log: cannot secure %s (%lu); no line is kept in files, trying again each hour",
        win32::ToNarrow(unsecuredAtStart.path).c_str(), unsecuredAtStart.error);
  }
  if (*shipper::Problem() != '\0') {
    Log(kWarn, component, "central log: %s; nothing is shipped", shipper::Problem());
  }
}

UnsecuredFolder LogTreeProblem() noexcept { return secured ? UnsecuredFolder{} : unsecuredAtStart; }

void StopBanner(const char* component) {
  Log(kNotice, component, "%s shutting down", component);
  CloseCentral();
}

void CloseCentral() {
  if (ready.load(std::memory_order_acquire) == Ready::kYes && central) {
    shipper::Stop(kShipperStopWait);
  }
}

void EndProcess(unsigned exitCode) noexcept {
  TerminateProcess(GetCurrentProcess(), exitCode);
  __builtin_unreachable();
}

}  // namespace kiosk::log
