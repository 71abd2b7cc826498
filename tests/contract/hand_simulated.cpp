// The hand over the simulated Windows.
#include "sim/files.h"
#include "sim/http.h"
#include "sim/leases.h"
#include "sim/network.h"
#include "sim/sessions.h"
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"

namespace contract {

bool IsSimulated() noexcept { return true; }

void MakeJunction(const std::wstring& path, const std::wstring& target) { sim::MakeJunction(path, target); }

DWORD SignInAtConsole(const wchar_t* user) { return sim::SignIn(user); }

struct SpareAdapter::Body {};
constexpr wchar_t kSpare[] = L"{4E6F7276-616E-6550-726F-6F6600000003}";
SpareAdapter::SpareAdapter() : name_(kSpare) { sim::AddAdapter(name_); }
SpareAdapter::~SpareAdapter() { RemoveSpareAdapters(); }
bool RemoveSpareAdapters() {
  sim::ForgetArea(sim::Adapter(kSpare).area);
  return true;
}

struct FileLease::Body : sim::HeldFile {
  using sim::HeldFile::HeldFile;
};

FileLease::FileLease(const std::wstring& path, LeaseKind kind)
    : body_(std::make_unique<Body>(path, kind == LeaseKind::kBatch ? sim::Lease::kBatch : sim::Lease::kReadHandle)) {}
FileLease::~FileLease() = default;

struct HttpServer::Body {
  sim::ScriptedPortal portal;
};

HttpServer::HttpServer(Behaviour behaviour) : body_(std::make_unique<Body>()) {
  sim::Response response{.body = "0123456789"};
  switch (behaviour) {
    case Behaviour::kAnswers:
      break;
    case Behaviour::kRedirects:
      response.status = 302;
      break;
    case Behaviour::kSilent:
      response.headersDelay = INFINITE;
      break;
    case Behaviour::kHalfABody:
      response.chunk = 5;
      response.readDelay = INFINITE;
      break;
    case Behaviour::kBreaksOff:
      response.body.resize(5);
      response.bodyError = ERROR_WINHTTP_CONNECTION_ERROR;
      break;
  }
  body_->portal.On(L"GET", L"/proof", [response](const sim::Request&) { return response; });
}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::Port() const noexcept { return 80; }

}  // namespace contract
