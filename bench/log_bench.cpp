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

#include <cstdlib>
#include <string>
#include <thread>

namespace {

constexpr int kLinesPerThread = 5000;  // so that the start of the threads does not count

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

kiosk::bench::Times PerLine(const kiosk::bench::Times& times, int threads) {
  const double lines = static_cast<double>(threads) * kLinesPerThread;
  return {times.median / lines, times.low / lines, times.high / lines};
}

// One process's part of the comparison: the median of a few rounds, in microseconds a line.
int MeasureAlone(int threads) {
  const auto times = kiosk::bench::Measure(5, 1, {[threads] { OnThreads(threads, OurLine); }});
  std::printf("%.3f\n", PerLine(times[0], threads).median);
  kiosk::log::CloseCentral();
  return 0;
}

double MeasureInAnotherProcess(const std::string& threads, bool shipping) {
  constexpr wchar_t kNowhere[] = L"https://localhost:9/";
  if (shipping) {
    kiosk::state::WriteString(kSettings, L"LogEndpoint", kNowhere);
  }
  char self[MAX_PATH];
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  double time = 0;
  if (std::FILE* pipe = _popen((std::string("\"") + self + "\" " + threads).c_str(), "r"); pipe != nullptr) {
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

std::string Named(const char* what, int threads) {
  return std::string(what) + ", " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

// In turns, since the machine is not always equally busy.
void CompareShipping(int threads) {
  std::vector<double> on;
  std::vector<double> off;
  for (int round = 0; round < 5; ++round) {
    off.push_back(MeasureInAnotherProcess(std::to_string(threads), false));
    on.push_back(MeasureInAnotherProcess(std::to_string(threads), true));
  }
  kiosk::bench::Row(Named("shipping on", threads), kiosk::bench::TimesOf(on),
                    {"shipping off", kiosk::bench::TimesOf(off)}, kiosk::bench::TimesWorse(1.2));
}

}  // namespace

int main(int count, char** arguments) {
  if (count > 1) {
    return MeasureAlone(std::atoi(arguments[1]));
  }
  auto peer = spdlog::basic_logger_mt("peer", "C:\\bench-peer.log", true);
  peer->set_pattern("[%H:%M:%S.%e] %l %v");
  peer->flush_on(spdlog::level::trace);

  for (const int threads : {1, 4}) {
    const auto times = kiosk::bench::Measure(9, 1,
                                             {[threads] { OnThreads(threads, OurLine); },
                                              [threads, &peer] {
                                                OnThreads(threads, [&peer](int number) {
                                                  peer->info("check-in {} of {} answered {}", number, "Hall 3", 200);
                                                });
                                              }});
    kiosk::bench::Row(Named("log line", threads), PerLine(times[0], threads), {"spdlog", PerLine(times[1], threads)},
                      kiosk::bench::TimesBetter(1));
  }
  CompareShipping(1);
  CompareShipping(4);
}
