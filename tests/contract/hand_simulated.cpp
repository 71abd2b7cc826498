// The hand over the simulated Windows.
#include "sim/files.h"
#include "sim/http.h"
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"

namespace contract {

bool IsSimulated() noexcept { return true; }

void MakeJunction(const std::wstring& path, const std::wstring& target) { sim::MakeJunction(path, target); }

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
      response.body.resize(5);
      response.chunkDelay = INFINITE;
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
