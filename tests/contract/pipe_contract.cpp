// The server's end of a named pipe, and who is at the other.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <sddl.h>

#include <thread>

namespace contract {
namespace {

using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;

constexpr wchar_t kName[] = L"\\\\.\\pipe\\NorvaneProof";

FileHandle Server(DWORD flags = 0) {
  return FileHandle(CreateNamedPipeW(kName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
                                     PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, PIPE_UNLIMITED_INSTANCES, 8192, 8192,
                                     0, nullptr));
}

FileHandle Client() {
  return FileHandle(CreateFileW(kName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
}

void FirstInstanceIsFirst(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine ignores the flag for the first instance");
  const FileHandle first = Server(FILE_FLAG_FIRST_PIPE_INSTANCE);
  asked.True("the first", static_cast<bool>(first));
  asked.Fails("another first", static_cast<bool>(Server(FILE_FLAG_FIRST_PIPE_INSTANCE)), {ERROR_ACCESS_DENIED});
  asked.True("a second instance", static_cast<bool>(Server()));
}

void ConnectingTellsWhoWasEarlier(Asked& asked) {
  const FileHandle pipe = Server();
  const KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED connecting{};
  connecting.hEvent = event.Get();
  asked.Fails("before a client", ConnectNamedPipe(pipe.Get(), &connecting) != 0, {ERROR_IO_PENDING});
  const FileHandle client = Client();
  asked.True("a client", static_cast<bool>(client));
  asked.Same("the event", WaitForSingleObject(event.Get(), 10'000), WAIT_OBJECT_0);
  const FileHandle second = Server();
  const FileHandle early = Client();
  OVERLAPPED late{};
  late.hEvent = event.Get();
  asked.Fails("after a client", ConnectNamedPipe(second.Get(), &late) != 0, {ERROR_PIPE_CONNECTED});
}

void ClosedClientsBreakThePipe(Asked& asked) {
  const FileHandle pipe = Server();
  FileHandle client = Client();
  DWORD written = 0;
  asked.True("WriteFile", WriteFile(client.Get(), "hello", 5, &written, nullptr) != 0);
  client.Reset();
  const KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED reading{};
  reading.hEvent = event.Get();
  char text[16]{};
  DWORD read = 0;
  const auto next = [&] {
    const bool done = ReadFile(pipe.Get(), text, sizeof(text), nullptr, &reading) != 0;
    if (!done && GetLastError() != ERROR_IO_PENDING) {
      return false;
    }
    return GetOverlappedResult(pipe.Get(), &reading, &read, TRUE) != 0;
  };
  asked.True("what was sent before", next());
  asked.Same("its bytes", read, 5);
  asked.Fails("the next read", next(), {ERROR_BROKEN_PIPE});
}

// "ImpersonateNamedPipeClient function": not before something was read from the pipe.
void TheClientIsKnown(Asked& asked) {
  const FileHandle pipe = Server();
  const FileHandle client = Client();
  DWORD written = 0;
  WriteFile(client.Get(), "hello", 5, &written, nullptr);
  const KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED reading{};
  reading.hEvent = event.Get();
  char text[16];
  DWORD read = 0;
  ReadFile(pipe.Get(), text, sizeof(text), nullptr, &reading);
  GetOverlappedResult(pipe.Get(), &reading, &read, TRUE);
  ULONG session = MAXDWORD;
  DWORD own = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &own);
  asked.True("GetNamedPipeClientSessionId", GetNamedPipeClientSessionId(pipe.Get(), &session) != 0);
  asked.Same("its session", session, own);
  asked.True("ImpersonateNamedPipeClient", ImpersonateNamedPipeClient(pipe.Get()) != 0);
  const AtEnd back([] { RevertToSelf(); });
  KernelHandle token;
  asked.True("OpenThreadToken", OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Put()) != 0);
  DWORD size = 0;
  asked.Fails("no room for the user", GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
  alignas(TOKEN_USER) BYTE user[512];
  asked.True("the user", size <= sizeof(user) && GetTokenInformation(token.Get(), TokenUser, user, size, &size) != 0);
}

void NobodyIsNobody(Asked& asked) {
  KernelHandle token;
  asked.Fails("a thread that stands for nobody",
              OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Put()) != 0, {ERROR_NO_TOKEN});
}

constexpr Case kCases[] = {
    {"first instance", "whoever wants the first instance gets no other", FirstInstanceIsFirst},
    {"connect", "connecting tells whether the client was earlier", ConnectingTellsWhoWasEarlier},
    {"broken", "what a client sent before it went is still read", ClosedClientsBreakThePipe},
    {"client", "the server learns its client's session and user", TheClientIsKnown},
    {"no client", "a thread that stands for nobody has no token", NobodyIsNobody},
};

}  // namespace

extern const Group kPipe;
const Group kPipe{"pipe", kCases};

}  // namespace contract
