#include "benchmarks/transport/measure.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>
#include <vector>

namespace benchmarks {
namespace {

constexpr std::int64_t kNsPerS = 1'000'000'000;

// A server that has not started after this time will not start any more.
constexpr std::int64_t kStartLimitNs = 30 * kNsPerS;

std::int64_t ToNs(const timespec& time) {
  return std::int64_t{time.tv_sec} * kNsPerS + time.tv_nsec;
}

std::int64_t CpuNs(pid_t process) {
  clockid_t clock = 0;
  timespec used{};
  if (clock_getcpuclockid(process, &clock) != 0 ||
      clock_gettime(clock, &used) != 0)
    Fail("cannot read the processor time of a process");
  return ToNs(used);
}

// The cores that a host and its server run on.
struct Cores {
  int host;
  int server;
};

Cores ChooseCores(Pinning pinning) {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
    Fail("cannot read which processors this process may use");
  std::vector<int> cores;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &allowed)) cores.push_back(core);
  }
  if (pinning == Pinning::kSame) return {cores[0], cores[0]};
  if (cores.size() < 2) Fail("--pin across needs two cores; there is one");
  return {cores[0], cores[1]};
}

void PinTo(int core) {
  cpu_set_t chosen;
  CPU_ZERO(&chosen);
  CPU_SET(core, &chosen);
  if (sched_setaffinity(0, sizeof chosen, &chosen) != 0)
    Fail("cannot pin this process to a core");
}

struct CommandLine {
  Options options;
  std::string allocation_counter;
  // The host passes these to its server, and a socket:
  int meter_descriptor = -1;
  int core = 0;
};

Figure ParseFigure(std::string_view name) {
  if (name == "unary") return Figure::kUnary;
  if (name == "upload") return Figure::kUpload;
  if (name == "storm") return Figure::kStorm;
  if (name == "events") return Figure::kEvents;
  if (name == "callback") return Figure::kCallback;
  if (name == "surface") return Figure::kSurface;
  if (name == "posts") return Figure::kPosts;
  if (name == "idle") return Figure::kIdle;
  Fail("unknown figure " + std::string(name));
}

int ParseNumber(std::string_view name, const char* value) {
  char* end = nullptr;
  const long number = std::strtol(value, &end, 10);
  if (*value == '\0' || *end != '\0' || number < 0 || number > 1 << 30)
    Fail(std::string(name) + " takes a number, not " + value);
  return static_cast<int>(number);
}

Pinning ParsePinning(std::string_view name) {
  if (name == "same") return Pinning::kSame;
  if (name == "across") return Pinning::kAcross;
  Fail("--pin takes same or across, not " + std::string(name));
}

CommandLine Parse(int argc, char** argv) {
  if (argc < 2) Fail("the figure is missing");
  CommandLine line;
  Options& options = line.options;
  options.figure = ParseFigure(argv[1]);
  for (int i = 2; i < argc; i += 2) {
    const std::string_view name = argv[i];
    if (i + 1 == argc) Fail(std::string(name) + " needs a value");
    const char* const value = argv[i + 1];
    if (name == "--interface") {
      options.interface = value;
    } else if (name == "--payload-bytes") {
      options.payload_bytes =
          static_cast<std::size_t>(ParseNumber(name, value));
    } else if (name == "--in-flight") {
      options.in_flight = std::max(1, ParseNumber(name, value));
    } else if (name == "--hosts") {
      options.hosts = std::max(1, ParseNumber(name, value));
    } else if (name == "--pin") {
      options.pinning = ParsePinning(value);
    } else if (name == "--duration-ms") {
      options.duration = std::chrono::milliseconds(ParseNumber(name, value));
    } else if (name == "--spin-us") {
      options.spin = std::chrono::microseconds(ParseNumber(name, value));
    } else if (name == "--count-allocations") {
      line.allocation_counter = value;
    } else if (name == "--socket") {
      options.socket_path = value;
    } else if (name == "--meter") {
      line.meter_descriptor = ParseNumber(name, value);
    } else if (name == "--core") {
      line.core = ParseNumber(name, value);
    } else {
      Fail("unknown option " + std::string(name));
    }
  }
  return line;
}

Meter& MapMeter(int descriptor) {
  void* const memory = mmap(nullptr, sizeof(Meter), PROT_READ | PROT_WRITE,
                            MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) Fail("cannot map shared memory");
  return *static_cast<Meter*>(memory);
}

int CreateMeter() {
  const int descriptor = memfd_create("meter", 0);
  if (descriptor < 0 || ftruncate(descriptor, sizeof(Meter)) != 0)
    Fail("cannot create shared memory");
  return descriptor;
}

int RunServer(const CommandLine& line, const Sides& sides) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  PinTo(line.core);
  // A host in another language measures by itself.
  const bool has_meter = line.meter_descriptor >= 0;
  Meter& meter = MapMeter(has_meter ? line.meter_descriptor : CreateMeter());
  meter.CountAllocations();
  sides.serve(line.options, meter);
  return 0;
}

// The LD_PRELOAD setting for this library. A path in it must not have a space
// or a colon, so the server inherits a descriptor and preloads that.
std::string Preloaded(const std::string& library) {
  if (library.empty()) return "";
  const int descriptor = open(library.c_str(), O_RDONLY);
  if (descriptor < 0) Fail("cannot open " + library);
  return "LD_PRELOAD=/proc/self/fd/" + std::to_string(descriptor);
}

// Starts this program once more, as the server.
pid_t StartServer(int argc, char** argv, const CommandLine& line,
                  int meter_descriptor, int core) {
  std::vector<std::string> words(argv, argv + argc);
  words.insert(words.end(),
               {"--meter", std::to_string(meter_descriptor), "--core",
                std::to_string(core), "--socket", line.options.socket_path});
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  std::string preload = Preloaded(line.allocation_counter);
  std::vector<char*> environment;
  for (char** variable = environ; *variable != nullptr; ++variable)
    environment.push_back(*variable);
  if (!preload.empty()) environment.push_back(preload.data());
  environment.push_back(nullptr);

  pid_t server = 0;
  if (posix_spawn(&server, "/proc/self/exe", nullptr, nullptr, arguments.data(),
                  environment.data()) != 0)
    Fail("cannot start the server");
  return server;
}

void AwaitServer(pid_t server, const Meter& meter) {
  const std::int64_t until = Now() + kStartLimitNs;
  while (!meter.is_ready()) {
    if (waitpid(server, nullptr, WNOHANG) == server)
      Fail("the server ended before it listened");
    if (Now() > until) Fail("the server does not listen after 30 s");
    usleep(50);
  }
}

int RunHost(int argc, char** argv, CommandLine line, const Sides& sides) {
  const Cores cores = ChooseCores(line.options.pinning);
  PinTo(cores.host);
  std::string folder = "/tmp/orvane-benchmark.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr)
    Fail("cannot create a folder for the socket");
  line.options.socket_path = folder + "/socket";

  const int descriptor = CreateMeter();
  Meter& meter = MapMeter(descriptor);

  const std::int64_t spawned = Now();
  const pid_t server = StartServer(argc, argv, line, descriptor, cores.server);
  meter.Start(line.options, server, spawned);
  AwaitServer(server, meter);
  sides.drive(line.options, meter);

  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  std::error_code ignored;  // The system cleans /tmp anyway.
  std::filesystem::remove_all(folder, ignored);
  if (!meter.is_done()) Fail("the connection broke");
  meter.Print();
  return 0;
}

}  // namespace

std::int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return ToNs(now);
}

void SleepUntil(std::int64_t time_ns) {
  const timespec time{.tv_sec = time_ns / kNsPerS,
                      .tv_nsec = time_ns % kNsPerS};
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

std::int64_t PrivateBytes(pid_t process) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  std::int64_t kib = 0;
  for (std::string word; rollup >> word;) {
    std::int64_t value = 0;
    if ((word == "Private_Clean:" || word == "Private_Dirty:") &&
        rollup >> value)
      kib += value;
  }
  return kib * 1024;
}

bool Meter::Ended(std::int64_t begun_ns) {
  const std::int64_t now = Now();
  if (phase_ == Phase::kMeasuring) {
    const std::size_t sample = samples_++;
    if (sample < sample_ns_.size())
      sample_ns_[sample] = static_cast<std::uint32_t>(
          std::min<std::int64_t>(now - begun_ns, UINT32_MAX));
  }
  return Advance(now, 1);
}

bool Meter::Ended(int operations) { return Advance(Now(), operations); }

bool Meter::Advance(std::int64_t now, int operations) {
  std::int64_t first = 0;
  if (first_ended_ns_.compare_exchange_strong(first, now)) first = now;
  const std::int64_t warm_until = first + duration_ns_ / 4;
  const std::int64_t until = warm_until + duration_ns_;

  if (phase_ == Phase::kMeasuring) operations_ += operations;
  // One thread changes the phase; the others do not wait for it.
  Phase expected = Phase::kWarmUp;
  if (now >= warm_until &&
      phase_.compare_exchange_strong(expected, Phase::kBeginning)) {
    begin_ = UsageNow();
    phase_ = Phase::kMeasuring;
    return true;
  }
  expected = Phase::kMeasuring;
  if (now >= until &&
      phase_.compare_exchange_strong(expected, Phase::kEnding)) {
    end_ = UsageNow();
    server_private_bytes_ = PrivateBytes(server_);
    phase_ = Phase::kDone;
  }
  return now < until;
}

Meter::Usage Meter::UsageNow() const {
  const std::int64_t helper_ns = helper_ == 0 ? 0 : CpuNs(helper_);
  return {Now(), CpuNs(host_) + CpuNs(server_) + helper_ns,
          server_allocations_};
}

void Meter::Start(const Options& options, pid_t server,
                  std::int64_t spawned_ns) {
  host_ = getpid();
  server_ = server;
  spawned_ns_ = spawned_ns;
  figure_ = options.figure;
  duration_ns_ = std::chrono::nanoseconds(options.duration).count();
}

void Meter::CountAllocations() {
  using Counter = void (*)(std::atomic<std::uint64_t>*);
  const auto count_in =
      reinterpret_cast<Counter>(dlsym(RTLD_DEFAULT, "CountAllocationsIn"));
  if (count_in == nullptr) return;
  counts_allocations_ = true;
  count_in(&server_allocations_);
}

Meter::Activity Meter::HostActivity() const {
  timespec own{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &own);
  Activity activity{CpuNs(host_) - ToNs(own), 0};
  const std::string self = std::to_string(gettid());
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == self) continue;
    std::ifstream status(task.path() / "status");
    for (std::string word; status >> word;) {
      std::int64_t switches = 0;
      if (word == "voluntary_ctxt_switches:" && status >> switches)
        activity.wake_ups += switches;
    }
  }
  return activity;
}

void Meter::WatchIdleHost() {
  // What the start has left to do is over by then.
  SleepUntil(Now() + duration_ns_ / 4);
  const Activity before = HostActivity();
  SleepUntil(Now() + duration_ns_);
  const Activity after = HostActivity();
  // The clocks of a process and of its thread differ by some microseconds.
  idle_ = {std::max<std::int64_t>(0, after.cpu_ns - before.cpu_ns),
           after.wake_ups - before.wake_ups};
  phase_ = Phase::kDone;
}

void Meter::Print() const {
  if (figure_ == Figure::kIdle) {
    const double seconds = static_cast<double>(duration_ns_) / kNsPerS;
    std::printf(R"({"wake_ups_per_s": %.1f, "cpu_us_per_s": %.1f})"
                "\n",
                static_cast<double>(idle_.wake_ups) / seconds,
                static_cast<double>(idle_.cpu_ns) / 1e3 / seconds);
    return;
  }
  const auto operations =
      static_cast<double>(std::max<std::int64_t>(1, operations_));
  const auto time_ns = static_cast<double>(end_.time_ns - begin_.time_ns);
  const auto cpu_ns = static_cast<double>(end_.cpu_ns - begin_.cpu_ns);
  std::printf(R"({"operations": %lld, "per_s": %.1f, "cpu_us": %.3f)",
              static_cast<long long>(operations_), operations * 1e9 / time_ns,
              cpu_ns / operations / 1e3);
  std::vector<std::uint32_t> samples(
      sample_ns_.begin(),
      sample_ns_.begin() + static_cast<std::ptrdiff_t>(
                               std::min(samples_.load(), sample_ns_.size())));
  if (!samples.empty()) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&samples](std::size_t percent) {
      return samples[(samples.size() - 1) * percent / 100] / 1e3;
    };
    std::printf(R"(, "p50_us": %.2f, "p99_us": %.2f)", at(50), at(99));
  }
  if (counts_allocations_) {
    std::printf(", \"allocations\": %.3f",
                static_cast<double>(end_.server_allocations -
                                    begin_.server_allocations) /
                    operations);
  }
  std::printf(", \"first_reply_us\": %.0f, \"private_kib\": %lld}\n",
              static_cast<double>(first_ended_ns_ - spawned_ns_) / 1e3,
              static_cast<long long>(server_private_bytes_ / 1024));
}

void Fail(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, why.c_str());
  std::exit(1);
}

int Run(int argc, char** argv, const Sides& sides) {
  CommandLine line = Parse(argc, argv);
  if (!line.options.socket_path.empty()) return RunServer(line, sides);
  return RunHost(argc, argv, std::move(line), sides);
}

}  // namespace benchmarks
