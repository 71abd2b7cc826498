// The log call against the basic file sink of spdlog, both with every line written out at once.
#define SPDLOG_HEADER_ONLY
#define SPDLOG_FMT_EXTERNAL
#define FMT_HEADER_ONLY
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "bench/bench.h"
#include "log/log.h"

#include <string>
#include <thread>

namespace {

constexpr int kLinesPerThread = 500;

void OnThreads(int count, const std::function<void(int)>& line) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&line] {
      for (int number = 0; number < kLinesPerThread; ++number) {
        line(number);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

int main() {
  using kiosk::log::Log;
  auto peer = spdlog::basic_logger_mt("peer", "C:\\bench-peer.log", true);
  peer->set_pattern("[%H:%M:%S.%e] %l %v");
  peer->flush_on(spdlog::level::trace);

  for (const int threads : {1, 4}) {
    const auto times = kiosk::bench::MedianTimes(
        9, 1,
        {[threads] {
           OnThreads(threads, [](int number) {
             Log(kiosk::log::kNotice, kiosk::log::kKiosk, "check-in %d of %s answered %d", number, "Hall 3", 200);
           });
         },
         [threads, &peer] {
           OnThreads(threads, [&peer](int number) { peer->info("check-in {} of {} answered {}", number, "Hall 3", 200); });
         }});
    const double lines = static_cast<double>(threads) * kLinesPerThread;
    const std::string name = "log line, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
    kiosk::bench::Row(name.c_str(), times[0] / lines, {"spdlog", times[1] / lines}, "us", kiosk::bench::TimesBetter(1));
  }
}
