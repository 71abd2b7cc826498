// The portal's side of a terminal's life (docs/portal-api.md), on loopback, one request at a time on a thread of its
// own.
#pragma once

#include "json/value.h"
#include "win32/handle.h"
#include "win32/lock.h"

#include <cstdint>
#include <string>

namespace proof {

class Portal {
 public:
  enum class Mode {
    kAnswers,
    kHangs,     // takes requests and does not answer until the mode changes
    kDribbles,  // a byte every 100 ms
    kCuts,      // closes in the middle of the answer
  };

  Portal() = default;
  Portal(const Portal&) = delete;
  Portal& operator=(const Portal&) = delete;
  ~Portal();

  // Serves that port, or 0: a free one. False with the last error.
  bool Start(std::uint16_t port);
  [[nodiscard]] std::uint16_t Port() const noexcept { return port_; }

  void SetMode(Mode mode);
  // Members of the check-in's reply.
  void Set(const char* member, kiosk::json::Value value);
  // A photo to be fetched; its digest.
  std::string AddPhoto(std::string bytes);
  // A person enters the code that was handed out last.
  void Claim();
  void Revoke();

  // Good check-ins so far, and all requests.
  [[nodiscard]] int CheckIns() const;
  [[nodiscard]] int Requests() const;
  // What is to be known after a restart: of the token, which the terminal has, its digest alone.
  [[nodiscard]] std::string TokenDigest() const;
  void KnowToken(const std::string& digest);

 private:
  struct Request {
    std::string method, path, bearer;
  };
  struct Reply {
    int status = 200;
    std::string body;
  };

  void Serve() noexcept;
  void ServeOne(std::uintptr_t client);
  Reply Answer(const Request& request);
  Reply AnswerPairing(const Request& request) REQUIRES(lock_);
  Reply CheckIn(const Request& request) REQUIRES(lock_);

  std::uintptr_t listener_ = 0;
  std::uint16_t port_ = 0;
  kiosk::win32::KernelHandle thread_;
  kiosk::win32::KernelHandle changed_;  // the mode did, or it is the end: whoever hangs goes on
  bool ending_ GUARDED_BY(lock_) = false;

  mutable kiosk::win32::Lock lock_{kiosk::win32::LockRank::kLeaf};
  Mode mode_ GUARDED_BY(lock_) = Mode::kAnswers;
  kiosk::json::Value settings_ GUARDED_BY(lock_) = kiosk::json::Value::Object();
  std::string photo_ GUARDED_BY(lock_), photoDigest_ GUARDED_BY(lock_);
  std::string code_ GUARDED_BY(lock_), tokenDigest_ GUARDED_BY(lock_);
  bool claimed_ GUARDED_BY(lock_) = false;
  bool revoked_ GUARDED_BY(lock_) = false;
  int checkIns_ GUARDED_BY(lock_) = 0;
  int requests_ GUARDED_BY(lock_) = 0;
};

}  // namespace proof
