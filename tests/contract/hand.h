// What a case cannot do by a call that Windows documents for programs, and what the simulated Windows has in its own
// way: two implementations, one for each link.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <memory>
#include <string>

namespace contract {

bool IsSimulated() noexcept;

// Makes a plain local user, whose password lasts. A Windows error.
DWORD AddUser(std::wstring name, std::wstring password);

// Empty, with the last error, when there is no such user.
std::wstring SidOfUser(const wchar_t* name);

// A local user "NorvaneProofUser" that is there while this lives; CannotRun where none can be made.
class LocalUser {
 public:
  static constexpr wchar_t kName[] = L"NorvaneProofUser";
  LocalUser();
  LocalUser(const LocalUser&) = delete;
  LocalUser& operator=(const LocalUser&) = delete;
  ~LocalUser();
  [[nodiscard]] const std::wstring& Sid() const noexcept { return sid_; }

 private:
  std::wstring sid_;
};

// Signs the user in at the console; CannotRun where that wants a person. Returns the session, which is the caller's to
// sign out.
DWORD SignInAtConsole(const wchar_t* user);

// A wired network adapter that leads nowhere, with DHCP on, while this lives; CannotRun where none can be made.
class SpareAdapter {
 public:
  SpareAdapter();
  SpareAdapter(const SpareAdapter&) = delete;
  SpareAdapter& operator=(const SpareAdapter&) = delete;
  ~SpareAdapter();
  // As Windows spells it: a GUID in braces.
  [[nodiscard]] const std::wstring& Name() const noexcept { return name_; }

 private:
  struct Body;
  std::unique_ptr<Body> body_;
  std::wstring name_;
};

// Takes away what a SpareAdapter has left whose process was ended. True when there is none any more.
bool RemoveSpareAdapters();

// Somebody who reads a file, shares it for everything, and holds an opportunistic lock on it, which he lets go when
// this ends; CannotRun where there are no such locks.
enum class LeaseKind { kBatch, kReadHandle };
class FileLease {
 public:
  explicit FileLease(const std::wstring& path, LeaseKind kind = LeaseKind::kBatch);
  FileLease(const FileLease&) = delete;
  FileLease& operator=(const FileLease&) = delete;
  ~FileLease();

 private:
  struct Body;
  std::unique_ptr<Body> body_;
};

// Makes `path` a junction to the folder `target`; CannotRun where that cannot be done.
void MakeJunction(const std::wstring& path, const std::wstring& target);

// An HTTP server on this computer for one request.
class HttpServer {
 public:
  enum class Behaviour {
    kAnswers,    // 200 with the body "0123456789" and a header "Proof: yes"
    kRedirects,  // 302 to /elsewhere
    kSilent,     // takes the request and never answers
    kHalfABody,  // announces 10 bytes, sends 5 and nothing more
    kBreaksOff,  // announces 10 bytes, sends 5 and closes
  };
  explicit HttpServer(Behaviour behaviour);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();
  [[nodiscard]] std::uint16_t Port() const noexcept;

 private:
  struct Body;
  std::unique_ptr<Body> body_;
};

}  // namespace contract
