#include "log/shipper/sender.h"

#include "log/local_log.h"
#include "log/shipper/ring.h"
#include "state/folders.h"
#include "win32/clock.h"

#include <algorithm>
#include <exception>
#include <memory>

namespace kiosk::log::shipper {
namespace {

constexpr std::size_t kMostInFlight = kMaxRecord;
// How long the first line of several waits for the others: one wake-up, and in a batch one request, for all of them.
constexpr DWORD kGather = 200;
constexpr std::uint64_t kTidyInterval = 60'000;
constexpr std::uint64_t kIdentityInterval = 30'000;
constexpr std::uint64_t kStuckInterval = 5'000;  // lines that neither the network nor the disk takes
constexpr unsigned kRefusalsInARow = 3;
constexpr std::uint64_t kDay = 86'400'000;
constexpr DWORD kAfterException = 1000;

// Takes lines out of the ring as records, until `limit` bytes are there; the first carries the number of lost lines.
std::string PopRecords(const Sender& sender, std::size_t limit, std::uint64_t lost) {
  const auto slot = std::make_unique<Slot>();
  std::string lines;
  for (std::uint64_t dropped = 0; lines.size() < limit && Pop(*slot, dropped); lost = 0) {
    AppendRecord(lines, sender,
                 {.time = win32::UnixMilliseconds(slot->time),
                  .seq = slot->seq,
                  .level = slot->level,
                  .component = slot->component.data(),
                  .message = {slot->message.data(), slot->length},
                  .dropped = dropped + lost});
    lines += '\n';
  }
  return lines;
}

}  // namespace

SenderThread::SenderThread(Settings settings, Sender sender, HANDLE wake, HANDLE stop)
    : settings_(std::move(settings)),
      sender_(std::move(sender)),
      wake_(wake),
      stop_(stop),
      endpoint_(stop),
      remote_(settings_),
      certificate_(settings_) {}

// As soon as it may be used.
void SenderThread::OpenSpool() {
  if (!spool_ && spoolUsable_) {
    spool_.emplace(state::kLogDrop, settings_.spoolCap);
    refused_.UseFolder(state::kLogArchive);
    tidyAt_ = 0;
  }
}

bool SenderThread::Stopped() const noexcept { return WaitForSingleObject(stop_, 0) == WAIT_OBJECT_0; }

void SenderThread::Run() noexcept {
  if (settings_.configUrlWrong) {
    LogLocal(kWarn, "central log: \"LogConfigUrl\" is no https URL");
  }
  bool taken = false;
  while (!taken && !Stopped()) {
    try {
      const Next next = Pass();
      taken = next == Next::kEnd;
      if (next == Next::kWait) {
        WaitForWork();
      }
    } catch (const std::exception& problem) {
      LogLocal(kError, "central log: a pass ended early (%s)", problem.what());
      WaitForSingleObject(stop_, kAfterException);
    }
  }
  endpoint_.Close();
  try {
    if (!taken) {
      Finish();
    }
  } catch (const std::exception& problem) {
    LogLocal(kError, "central log: lines were lost at the stop (%s)", problem.what());
  }
}

// One step: at most one request, and no wait of its own.
SenderThread::Next SenderThread::Pass() {
  OpenSpool();
  if (win32::TickCount() >= tidyAt_) {
    TidySpool();
  }
  const bool identity = IdentityIsGood();
  if (identity && remote_.FetchWhenDue(endpoint_, certificate_.Get())) {
    retryAt_ = 0;
  }
  const bool ready = identity && win32::TickCount() >= retryAt_;
  if (!Collect()) {
    return Next::kEnd;
  }
  if (!remote_.Enabled()) {
    return flight_.Clear() ? Next::kWait : Next::kEnd;
  }
  if (!flight_.Lines().empty() && (!ready || backlog_)) {
    if (const Next next = KeepFlight(); next != Next::kWait) {
      return next;
    }
  }
  if (!ready) {
    return Next::kWait;
  }
  return backlog_ ? SendFromSpool() : SendFlight();
}

// Fills the flight from the ring when it is empty. False when it was taken over.
bool SenderThread::Collect() {
  if (!flight_.Lines().empty()) {
    return true;
  }
  lost_ += spool_ ? spool_->TakeLost() : 0;
  std::string lines = PopRecords(sender_, kMostInFlight, lost_);
  if (lines.empty()) {
    return true;
  }
  lost_ = 0;
  const bool mine = flight_.Swap(lines);
  if (!mine && spool_ && spool_->Append(lines)) {  // whoever took over cannot know of these
    spool_->CloseSegment();
  }
  return mine;
}

// Puts the flight into the spool. kWait: it would not go there and stays.
SenderThread::Next SenderThread::KeepFlight() {
  if (!spool_ || !spool_->Append(flight_.Lines())) {
    return Next::kWait;
  }
  backlog_ = true;
  return flight_.Clear() ? Next::kGoOn : Next::kEnd;
}

// Whether anything may be sent at all.
bool SenderThread::IdentityIsGood() {
  if (const std::uint64_t now = win32::TickCount(); now >= identityAt_) {
    identityFault_ = certificate_.Check();
    if (identityFault_ == nullptr && settings_.certificateRequired && !certificate_.Wanted()) {
      identityFault_ = "\"ClientCertRequired\" is set and \"ClientCertThumbprint\" is not";
    }
    identityAt_ = now + kIdentityInterval;
  }
  if (identityFault_ != nullptr) {
    SayDaily(identityFault_);
  }
  return identityFault_ == nullptr || !settings_.certificateRequired;
}

SenderThread::Next SenderThread::SendFlight() {
  if (flight_.Lines().empty()) {
    return Next::kWait;
  }
  const std::optional<std::size_t> done = SendFront(flight_.Lines());
  if (done && *done != 0) {
    return flight_.Shorten(*done) ? Next::kGoOn : Next::kEnd;
  }
  return Next::kGoOn;  // the next pass keeps it, or sends it otherwise
}

SenderThread::Next SenderThread::SendFromSpool() {
  if (chunk_.empty() && !FillChunk()) {
    backlog_ = false;
    return Next::kGoOn;
  }
  if (const std::optional<std::size_t> done = SendFront(chunk_)) {
    chunk_.erase(0, *done);
  }
  return Next::kGoOn;
}

// The next lines of the spool; false when there are none.
bool SenderThread::FillChunk() {
  while (spool_) {
    if (!claimed_) {
      claimed_ = spool_->Claim();
    }
    if (!claimed_) {
      return false;
    }
    for (std::string record; chunk_.size() < kMostInFlight && claimed_->Next(record);) {
      chunk_.append(record).append(1, '\n');
    }
    if (!chunk_.empty()) {
      return true;
    }
    if (const DWORD error = claimed_->ReadError(); error != ERROR_SUCCESS) {
      if (!std::exchange(unreadIsTold_, true)) {
        LogLocal(kWarn, "central log: a segment of the spool cannot be read (%lu); trying again each minute", error);
      }
      unread_.push_back(std::move(*claimed_));
    } else if (!claimed_->Delete()) {
      undeleted_.push_back(std::move(*claimed_));
    }
    claimed_.reset();
  }
  return false;
}

// How much of the lines goes into one request, the last line end included.
std::size_t SenderThread::FrontSize(std::string_view lines) const noexcept {
  const std::size_t first = lines.find('\n') + 1;
  if (!remote_.Batch() || singles_ != 0) {
    return first;
  }
  const std::size_t last = lines.substr(0, kMaxRecord).rfind('\n');
  return last == std::string_view::npos ? first : last + 1;
}

// Sends from the front. How many bytes are done with; 0: to be sent again in another way; empty: not now.
std::optional<std::size_t> SenderThread::SendFront(std::string_view lines) {
  const std::size_t size = FrontSize(lines);
  const std::string_view records = lines.substr(0, size - 1);
  const Outcome result = endpoint_.Post(remote_.Target(), certificate_.Get(), records);
  if (result.error == ERROR_WINHTTP_OPERATION_CANCELLED && Stopped()) {
    return std::nullopt;
  }
  Answered(result);
  if (result.verdict == Verdict::kRefused) {
    // One record in it may be at fault, or all of them together too much.
    if (const auto count = static_cast<std::size_t>(std::count(records.begin(), records.end(), '\n')); count != 0) {
      singles_ = count + 1;
      return 0;
    }
    refused_.SetAside(records, result.Text());
    // A server may also say so to everybody, for instance to a terminal without the right certificate: then it is not
    // the records' fault, and only one now and then is set aside to find out.
    if (++refusals_ >= kRefusalsInARow) {
      Pause(Spread(Backoff::kLongest), result);
    }
  } else if (result.verdict != Verdict::kSent) {
    return std::nullopt;
  }
  refusals_ = result.verdict == Verdict::kSent ? 0 : refusals_;
  singles_ -= std::min<std::size_t>(singles_, 1);
  return size;
}

// Draws the conclusions for the next request.
void SenderThread::Answered(const Outcome& result) {
  if (result.verdict == Verdict::kSent || result.verdict == Verdict::kRefused) {
    backoff_.Reset();
    retryAt_ = 0;
    if (result.verdict == Verdict::kSent && std::exchange(outage_, false)) {
      LogLocal(kNotice, "central log: the endpoint takes lines again");
    }
    return;
  }
  Pause(result.verdict == Verdict::kWait ? Spread(Backoff::kLongest) : backoff_.Next(), result);
}

void SenderThread::Pause(std::uint64_t wait, const Outcome& result) {
  retryAt_ = win32::TickCount() + std::max({wait, Spread(result.retryAfter), std::uint64_t{1}});
  if (!std::exchange(outage_, true)) {
    LogLocal(kWarn, "central log: the endpoint does not take lines (%s); they are kept in the spool",
             result.Text().c_str());
  }
}

void SenderThread::WaitForWork() {
  const std::uint64_t now = win32::TickCount();
  const auto until = [now](std::uint64_t moment) { return moment > now ? moment - now : 0; };
  std::uint64_t wait = until(tidyAt_);
  if (retryAt_ > now) {
    wait = std::min(wait, until(retryAt_));
  }
  if (identityFault_ == nullptr || !settings_.certificateRequired) {
    wait = std::min(wait, remote_.DueIn());
  }
  if (!flight_.Lines().empty()) {
    wait = std::min(wait, kStuckInterval);
  }
  const HANDLE objects[] = {stop_, wake_};
  if (WaitForMultipleObjects(2, objects, FALSE, static_cast<DWORD>(wait)) == WAIT_OBJECT_0 + 1) {
    WaitForMultipleObjects(2, objects, FALSE, kGather);  // ends early when the ring is half full
  }
}

// Segments of processes that died, and those of other programs, are found by looking.
void SenderThread::TidySpool() {
  tidyAt_ = win32::TickCount() + kTidyInterval;
  undeleted_.erase(
      std::remove_if(undeleted_.begin(), undeleted_.end(), [](Segment& segment) { return segment.Delete(); }),
      undeleted_.end());
  if (spool_) {
    spool_->ReturnDeadClaims();
    if (!claimed_ && !unread_.empty()) {
      claimed_ = std::move(unread_.front());
      unread_.erase(unread_.begin());
    }
    backlog_ = backlog_ || claimed_ || spool_->HasSegments();
  }
}

void SenderThread::SayDaily(const char* problem) {
  if (const std::uint64_t now = win32::TickCount(); now >= complainAt_) {
    complainAt_ = now + kDay;
    LogLocal(kWarn, "central log: %s%s", problem, settings_.certificateRequired ? "; lines are kept in the spool" : "");
  }
}

void SenderThread::Finish() {
  OpenSpool();
  if (claimed_) {
    claimed_->Return(spool_->Folder());
  }
  while (spool_ && remote_.Enabled() && Collect() && !flight_.Lines().empty() && KeepFlight() == Next::kGoOn) {
  }
  if (spool_) {
    spool_->CloseSegment();
  }
}

void SenderThread::Rescue() {
  if (!spoolUsable_) {
    return;
  }
  Spool own(state::kLogDrop, settings_.spoolCap);
  std::string lines = flight_.TakeOver();
  do {
    if (!lines.empty() && !own.Append(lines)) {
      break;
    }
    lines = PopRecords(sender_, kMostInFlight, 0);
  } while (!lines.empty());
  own.CloseSegment();
}

}  // namespace kiosk::log::shipper
