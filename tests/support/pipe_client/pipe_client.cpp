// pipe_client [--wait] REQUEST: sends one request line to the service and prints the reply. With --wait it prints
// "ready" and connects only after a line on standard input. Exit codes: 0 replied, 1 no reply, 2 usage, 3 no service.
#include "tests/support/pipe_exchange.h"

#include <cstdio>
#include <cstring>

int main(int count, char** arguments) {
  int next = 1;
  const bool wait = count > next && std::strcmp(arguments[next], "--wait") == 0;
  next += wait ? 1 : 0;
  if (count != next + 1) {
    return 2;
  }
  if (wait) {
    static_cast<void>(std::puts("ready"));
    static_cast<void>(std::fflush(stdout));
    static_cast<void>(std::getchar());
  }
  const kiosk::win32::FileHandle pipe = kiosk::test::ConnectToService();
  if (!pipe) {
    return 3;
  }
  kiosk::test::Send(pipe.Get(), std::string(arguments[next]) + "\n");
  const std::string reply = kiosk::test::ReceiveLine(pipe.Get());
  static_cast<void>(std::fputs(reply.c_str(), stdout));
  return reply.empty() ? 1 : 0;
}
