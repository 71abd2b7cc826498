// The log call against the basic file sink of spdlog, both with every line written out at once; and the log call with
// central shipping on against that with it off. Logging begins once in a process, so the program runs itself again for
// the second, with an endpoint that nobody serves: lines then go to the spool, the dearest case.
#define SPDLOG_HEADER_ONLY
#define SPDLOG_FMT_EXTERNAL
#define FMT_HEADER_ONLY
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "bench/bench.h"
#include "log/log.h"
#include "state/registry.h"
#include "win32/winapi.h"

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

constexpr wchar_t kSettings[] = L"SOFTWARE\\Norvane\\Tessaly\\Log";

void OurLine(int number) {
  kiosk::log::Log(kiosk::log::kNotice, kiosk::log::kKiosk, "check-in %d of %s answered %d", number, "Hall 3", 200);
}

// One process's part of the comparison: the median of a few rounds of 4 threads, in microseconds a line.
int MeasureAlone() {
  const auto times = kiosk::bench::MedianTimes(9, 1, {[] { OnThreads(4, OurLine); }});
  std::printf("%.3f\n", times[0] / (4.0 * kLinesPerThread));
  kiosk::log::CloseCentral();
  return 0;
}

double MeasureInAnotherProcess(bool shipping) {
  constexpr wchar_t kNowhere[] = L"https://localhost:9/";
  if (shipping) {
    kiosk::state::WriteString(kSettings, L"LogEndpoint", kNowhere);
  }
  char self[MAX_PATH];
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  double time = 0;
  if (std::FILE* pipe = _popen((std::string("\"") + self + "\" --alone").c_str(), "r"); pipe != nullptr) {
    if (std::fscanf(pipe, "%lf", &time) != 1) {
      time = 0;
    }
    _pclose(pipe);
  }
  if (shipping) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, L"LogEndpoint");
  }
  return time;
}

// In turns, since the machine is not always equally busy.
void CompareShipping() {
  std::vector<double> on;
  std::vector<double> off;
  for (int round = 0; round < 5; ++round) {
    off.push_back(MeasureInAnotherProcess(false));
    on.push_back(MeasureInAnotherProcess(true));
  }
  kiosk::bench::Row("shipping on, 4 threads", kiosk::bench::Median(on), {"shipping off", kiosk::bench::Median(off)},
                    "us", kiosk::bench::TimesWorse(1.2));
}

}  // namespace

int main(int count, char**) {
  if (count > 1) {
    return MeasureAlone();
  }
  auto peer = spdlog::basic_logger_mt("peer", "C:\\bench-peer.log", true);
  peer->set_pattern("[%H:%M:%S.%e] %l %v");
  peer->flush_on(spdlog::level::trace);

  for (const int threads : {1, 4}) {
    const auto times = kiosk::bench::MedianTimes(
        9, 1,
        {[threads] { OnThreads(threads, OurLine); },
         [threads, &peer] {
           OnThreads(threads,
                     [&peer](int number) { peer->info("check-in {} of {} answered {}", number, "Hall 3", 200); });
         }});
    const double lines = static_cast<double>(threads) * kLinesPerThread;
    const std::string name = "log line, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
    kiosk::bench::Row(name.c_str(), times[0] / lines, {"spdlog", times[1] / lines}, "us", kiosk::bench::TimesBetter(1));
  }
  CompareShipping();
}
