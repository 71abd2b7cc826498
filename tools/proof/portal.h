// The portal's side of a terminal's life (docs/portal-api.md), on loopback, one request at a time on a thread of its
// own.
#pragma once

#include "json/value.h"
#include "win32/handle.h"
#include "win32/lock.h"
#include "win32/socket.h"

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
  // What it knows and does.
  struct State {
    Mode mode = Mode::kAnswers;
    kiosk::json::Value settings = kiosk::json::Value::Object();  // members of the check-in's reply
    std::string photo;
    std::string code;         // that was handed out last
    bool claimed = false;     // a person has entered it
    std::string tokenDigest;  // of the token, which the terminal alone has
    bool revoked = false;
    int checkIns = 0;  // good ones
    int requests = 0;  // all
  };

  Portal() = default;
  Portal(const Portal&) = delete;
  Portal& operator=(const Portal&) = delete;
  ~Portal();

  // Serves that port, or 0: a free one. False with the last error.
  bool Start(std::uint16_t port);
  [[nodiscard]] std::uint16_t Port() const noexcept { return port_; }

  [[nodiscard]] State Look() const {
    const kiosk::win32::LockGuard guard(lock_);
    return state_;
  }
  template <typename Action>
  void Change(Action action) {
    const kiosk::win32::LockGuard guard(lock_);
    action(state_);
  }
  void SetMode(Mode mode);

 private:
  struct Request {
    std::string method, path, bearer;
  };
  struct Reply {
    int status = 200;
    std::string body;
  };

  void Serve() noexcept;
  void ServeOne(SOCKET client);
  Reply Answer(const Request& request);
  Reply AnswerPairing(const Request& request) REQUIRES(lock_);
  Reply CheckIn(const Request& request) REQUIRES(lock_);

  kiosk::win32::Winsock winsock_;
  kiosk::win32::Socket listener_;
  std::uint16_t port_ = 0;
  kiosk::win32::KernelHandle thread_;
  kiosk::win32::KernelHandle changed_;  // the mode did, or it is the end: whoever hangs goes on
  mutable kiosk::win32::Lock lock_{kiosk::win32::LockRank::kLeaf};
  State state_ GUARDED_BY(lock_);
};

}  // namespace proof
