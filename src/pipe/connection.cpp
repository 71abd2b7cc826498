#include "pipe/connection.h"

#include "command/reply.h"
#include "json/serialise.h"
#include "log/log.h"
#include "pipe/dispatch.h"
#include "pipe/framing.h"
#include "pipe/overlapped.h"
#include "pipe/refusal_log.h"
#include "text/secret.h"
#include "win32/clock.h"
#include "win32/stop.h"

#include <array>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace kiosk::pipe {
namespace {

using log::kKiosk;

constexpr std::uint64_t kRequestDeadline = 15'000;
constexpr DWORD kReplyDeadline = 5000;
constexpr std::uint64_t kLeaveDeadline = 5000;

class Connection {
 public:
  Connection(win32::FileHandle pipe, const Client& client, Place& place, command::PostReplyAction& afterReply) noexcept
      : pipe_(std::move(pipe)), client_(client), place_(place), afterReply_(afterReply), io_(place.EndEvent()) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { DisconnectNamedPipe(pipe_.Get()); }

  void Run();

 private:
  IoResult Read(std::span<char> room, const win32::Deadline& deadline) noexcept;
  bool ReadRequest(RequestBuffer& request);
  std::string Verify(CallerRecord& caller);
  text::Secret Answer(std::string_view request);
  bool Write(std::string_view reply) noexcept;
  void AwaitLeave() noexcept;

  win32::FileHandle pipe_;
  const Client& client_;
  Place& place_;
  command::PostReplyAction& afterReply_;
  const win32::Deadline deadline_{kRequestDeadline};
  OverlappedIo io_;
};

void Connection::Run() {
  if (!io_ || place_.EndEvent() == nullptr) {
    log::Log(log::kError, kKiosk, "pipe: cannot create a connection's event (%lu)", GetLastError());
    return;
  }
  RequestBuffer request;
  if ((!ReadRequest(request) && place_.Ended()) || request.Request().empty()) {
    return;
  }
  const text::Secret reply = Answer(request.Request());
  if (!reply.Empty() && Write(reply.Get())) {
    AwaitLeave();
  }
}

IoResult Connection::Read(std::span<char> room, const win32::Deadline& deadline) noexcept {
  const DWORD left = deadline.Left();
  if (left == 0) {
    return {IoEnd::kTimeout};
  }
  const BOOL started = ReadFile(pipe_.Get(), room.data(), static_cast<DWORD>(room.size()), nullptr, io_.Begin());
  return io_.Finish(pipe_.Get(), started, left);
}

// What came is the request. False when it was cut short by the end of the service or of the place.
bool Connection::ReadRequest(RequestBuffer& request) {
  while (!request.Over()) {
    const IoResult read = Read(request.Room(), deadline_);
    if (read.end != IoEnd::kDone || read.bytes == 0) {
      return read.end != IoEnd::kStop;
    }
    request.Added(read.bytes);
  }
  return true;
}

// The reason to refuse the caller; empty to admit.
std::string Connection::Verify(CallerRecord& caller) {
  std::string refusal = CheckCallerProcess(pipe_.Get(), client_, {deadline_, place_.EndEvent()});
  return refusal.empty() ? IdentifyCaller(pipe_.Get(), client_, caller) : refusal;
}

// The reply line; empty when the connection was ended meanwhile. The request is not looked at before its caller is
// verified.
text::Secret Connection::Answer(std::string_view request) {
  CallerRecord caller;
  const std::string refusal = Verify(caller);
  const bool ended = refusal.empty() ? !place_.Leave() : place_.Ended() || win32::StopRequested();
  if (ended) {
    return {};
  }
  json::Value reply;
  const text::WipeOnExit wipe(reply);
  if (refusal.empty()) {
    reply = Dispatch(caller, request, afterReply_);
    place_.Return();
  } else {
    LogRefusal("caller refused: %s", refusal.c_str());
    reply = command::ErrorReply("caller_refused");
  }
  text::Secret line(json::Serialise(reply));
  line.Append("\n");
  return line;
}

bool Connection::Write(std::string_view reply) noexcept {
  const BOOL started = WriteFile(pipe_.Get(), reply.data(), static_cast<DWORD>(reply.size()), nullptr, io_.Begin());
  return io_.Finish(pipe_.Get(), started, kReplyDeadline).end == IoEnd::kDone;
}

// Disconnecting takes an unread reply away from the client, and flushing would wait for the reader without limit. So
// the client is given time to close its end. What it still sends is thrown away, in large pieces because they cost
// less.
void Connection::AwaitLeave() noexcept {
  const win32::Deadline deadline(kLeaveDeadline);
  std::array<char, kReadChunk> unwanted;
  while (Read(unwanted, deadline).end == IoEnd::kDone && !win32::StopRequested()) {
  }
}

}  // namespace

void ServeConnection(win32::FileHandle pipe, const Client& client, Place& place) noexcept {
  command::PostReplyAction afterReply = nullptr;
  try {
    Connection(std::move(pipe), client, place, afterReply).Run();
  } catch (const std::exception& problem) {
    log::Log(log::kError, kKiosk, "pipe: a connection ended early (%s)", problem.what());
  }
  // The pipe is closed by now. The command was accepted, so this happens also when its reply did not reach anybody.
  try {
    if (afterReply != nullptr) {
      afterReply();
    }
  } catch (const std::exception& problem) {
    log::Log(log::kError, kKiosk, "pipe: what a command left to be done ended early (%s)", problem.what());
  }
}

}  // namespace kiosk::pipe
