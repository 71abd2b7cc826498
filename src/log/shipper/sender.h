// The shipper's one thread: takes lines from the ring, posts them, and goes through the spool whenever it must wait.
#pragma once

#include "log/shipper/certificate.h"
#include "log/shipper/endpoint.h"
#include "log/shipper/flight.h"
#include "log/shipper/gelf.h"
#include "log/shipper/refused.h"
#include "log/shipper/remote.h"
#include "log/shipper/shipper_settings.h"
#include "log/shipper/spool.h"

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace kiosk::log::shipper {

class SenderThread {
 public:
  // `wake` (auto reset) is set when there are lines, `stop` ends it all. Before UseSpool nothing is kept below the
  // log root.
  SenderThread(Settings settings, Sender sender, HANDLE wake, HANDLE stop);
  SenderThread(const SenderThread&) = delete;
  SenderThread& operator=(const SenderThread&) = delete;
  ~SenderThread() = default;

  // Before Run, on the thread that starts it.
  void LoadKeptConfig() { remote_.LoadKept(); }

  // Any thread, at any time.
  void UseSpool() noexcept { spoolUsable_ = true; }

  // The body of the thread; returns soon after the stop, with everything unsent in the spool.
  void Run() noexcept;

  // When the thread does not end in time: puts its unsent records and the ring's into the spool. What the thread does
  // afterwards has no effect, save that records may arrive twice.
  void Rescue();

 private:
  enum class Next { kGoOn, kWait, kEnd };

  [[nodiscard]] bool Stopped() const noexcept;
  Next Pass();
  void OpenSpool();
  bool Collect();
  Next KeepFlight();
  bool IdentityIsGood();
  Next SendFlight();
  Next SendFromSpool();
  bool FillChunk();
  std::optional<std::size_t> SendFront(std::string_view lines);
  [[nodiscard]] std::size_t FrontSize(std::string_view lines) const noexcept;
  void Answered(const Outcome& result);
  void Pause(std::uint64_t wait, const Outcome& result);
  void WaitForWork();
  void Finish();
  void TidySpool();
  void SayDaily(const char* problem);

  const Settings settings_;
  const Sender sender_;
  std::atomic<bool> spoolUsable_{false};
  HANDLE wake_;
  HANDLE stop_;
  Endpoint endpoint_;
  Remote remote_;
  ClientCertificate certificate_;
  Refused refused_;
  std::optional<Spool> spool_;
  Flight flight_;

  std::uint64_t lost_ = 0;          // lines that went for the spool's cap; the next record says so
  bool backlog_ = false;            // the spool may hold something
  std::optional<Segment> claimed_;  // being sent
  std::string chunk_;               // its next lines
  std::vector<Segment> undeleted_;  // sent, but Windows would not delete them
  std::vector<Segment> unread_;     // Windows would not read on in them; tried again one by one
  bool unreadIsTold_ = false;
  Backoff backoff_;
  std::uint64_t retryAt_ = 0;  // tick count; nothing is sent before
  unsigned refusals_ = 0;      // in a row
  std::size_t singles_ = 0;    // records that go one by one, because their batch was refused
  std::uint64_t tidyAt_ = 0;   // tick count of the next look at the spool
  const char* identityFault_ = nullptr;
  std::uint64_t identityAt_ = 0;  // tick count of the next look at the certificate
  std::uint64_t complainAt_ = 0;  // tick count of the next daily line
  bool outage_ = false;           // logged
};

}  // namespace kiosk::log::shipper
