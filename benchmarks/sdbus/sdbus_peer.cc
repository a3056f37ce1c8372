// D-Bus through libsystemd's sd-bus, over a Unix-domain socket: one thread at
// each end, calls and signals.
//
//   --interface peer  the host is connected to the server itself
//   --interface bus   both are connected to a dbus-daemon of their own, which
//                     runs on the server's core
//
// With one call in flight the host blocks in it, which is faster than to wait
// for all that may arrive.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/transport/measure.h"

namespace benchmarks {
namespace {

constexpr char kName[] = "benchmarks.Peer";
constexpr char kPath[] = "/benchmarks/Peer";
constexpr char kInterface[] = "benchmarks.Peer";
constexpr std::uint64_t kBrowser = 1;
constexpr std::uint32_t kPointer = 6;

struct Release {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const {
    sd_bus_message_unref(message);
  }
};
using Bus = std::unique_ptr<sd_bus, Release>;
using Message = std::unique_ptr<sd_bus_message, Release>;

// sd-bus returns an error as a negative number.
int Check(int result, const char* what) {
  if (result < 0)
    Fail(std::string("cannot ") + what + ": " + std::strerror(-result));
  return result;
}

bool HasDaemon(const Options& options) {
  if (options.interface == "bus") return true;
  if (options.interface == "peer" || options.interface.empty()) return false;
  Fail("--interface is peer or bus");
}

Bus NewBus() {
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus), "create a connection");
  return Bus(bus);
}

Bus Connect(const Options& options) {
  Bus bus = NewBus();
  const std::string address = "unix:path=" + options.socket_path;
  Check(sd_bus_set_address(bus.get(), address.c_str()), "use the address");
  Check(sd_bus_set_bus_client(bus.get(), HasDaemon(options)), "say hello");
  Check(sd_bus_start(bus.get()), "connect");
  return bus;
}

// False once the connection has ended.
bool HandleAll(sd_bus* bus) {
  int handled = 0;
  do {
    handled = sd_bus_process(bus, nullptr);
  } while (handled > 0);
  return handled == 0;
}

pollfd ToPoll(sd_bus* bus) {
  return {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
}

void AppendBytes(sd_bus_message* message, const void* bytes, std::size_t size) {
  Check(sd_bus_message_append_array(message, 'y', bytes, size),
        "append a payload");
}

// The server -----------------------------------------------------------------

class Server {
 public:
  Server(const Options& options, Meter& meter) {
    if (HasDaemon(options)) {
      meter.AlsoMeasure(StartDaemon(options));
      buses_.push_back(Connect(options));
      Serve(buses_.front().get());
      Check(sd_bus_request_name(buses_.front().get(), kName, 0), "be named");
    } else {
      Listen(options.socket_path);
    }
  }

  void Run() {
    while (true) {
      std::erase_if(buses_,
                    [](const Bus& bus) { return !HandleAll(bus.get()); });
      std::vector<pollfd> waiting;
      waiting.reserve(buses_.size() + 1);
      for (const Bus& bus : buses_) waiting.push_back(ToPoll(bus.get()));
      waiting.push_back({listener_, POLLIN, 0});
      poll(waiting.data(), waiting.size(), -1);
      if (waiting.back().revents != 0) Accept();
    }
  }

 private:
  static pid_t StartDaemon(const Options& options) {
    const std::string configuration = options.socket_path + ".conf";
    std::ofstream(configuration)
        << "<busconfig><type>session</type><listen>unix:path="
        << options.socket_path
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
           "<allow own=\"*\"/></policy>"
           "<limit name=\"max_replies_per_connection\">50000</limit>"
           "</busconfig>";
    int ends[2];
    if (pipe(ends) != 0) Fail("cannot create a pipe");
    const pid_t daemon = fork();
    if (daemon == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile",
             ("--config-file=" + configuration).c_str(),
             ("--print-address=" + std::to_string(ends[1])).c_str(), nullptr);
      _exit(1);
    }
    close(ends[1]);
    // It prints its address when it listens.
    char printed = 0;
    if (read(ends[0], &printed, 1) != 1) Fail("dbus-daemon does not start");
    return daemon;
  }

  void Listen(const std::string& path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address),
             sizeof address) != 0 ||
        listen(listener_, SOMAXCONN) != 0)
      Fail("cannot listen");
  }

  void Accept() {
    const int connection =
        accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection < 0) Fail("cannot accept a connection");
    Bus bus = NewBus();
    sd_id128_t id;
    Check(sd_id128_randomize(&id), "make an id");
    Check(sd_bus_set_fd(bus.get(), connection, connection), "use the socket");
    Check(sd_bus_set_server(bus.get(), true, id), "be the server");
    Check(sd_bus_start(bus.get()), "answer a host");
    Serve(bus.get());
    buses_.push_back(std::move(bus));
  }

  void Serve(sd_bus* bus) {
    static const sd_bus_vtable kMethods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Echo", "ay", "ay", Echo, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("AskBurst", "", "", AskBurst, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kMethods,
                                   this),
          "serve");
  }

  static int Echo(sd_bus_message* call, void*, sd_bus_error*) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(call, 'y', &bytes, &size),
          "read a payload");
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_method_return(call, &made), "make an answer");
    const Message answer(made);
    AppendBytes(answer.get(), bytes, size);
    return sd_bus_send(nullptr, answer.get(), nullptr);
  }

  // The daemon passes a signal on to every host.
  static int AskBurst(sd_bus_message* call, void* server, sd_bus_error*) {
    const std::vector<Bus>& buses = static_cast<Server*>(server)->buses_;
    for (int i = 0; i < kBurst; ++i) {
      for (const Bus& bus : buses) {
        const int sent =
            sd_bus_emit_signal(bus.get(), kPath, kInterface, "CursorChanged",
                               "tu", kBrowser, kPointer);
        // At the end a host may have left before it has read all of them.
        if (sd_bus_is_open(bus.get()) > 0) Check(sent, "send a signal");
      }
    }
    return sd_bus_reply_method_return(call, "");
  }

  int listener_ = -1;  // poll() ignores this one.
  std::vector<Bus> buses_;
};

void Serve(const Options& options, Meter& meter) {
  Server server(options, meter);
  meter.SetReady();
  server.Run();
}

// The host -------------------------------------------------------------------

class Host {
 public:
  Host(const Options& options, Meter& meter)
      : options_(options),
        meter_(meter),
        server_(HasDaemon(options) ? kName : nullptr),
        payload_(options.payload_bytes, '\0') {
    for (int i = 0; i < options.hosts; ++i) buses_.push_back(Connect(options));
  }

  void Run() {
    switch (options_.figure) {
      case Figure::kUnary:
        return options_.in_flight == 1 ? CallAndWait() : CallInFlight();
      case Figure::kEvents:
        return Watch();
      default:
        Fail("sd-bus is measured with unary and events");
    }
  }

 private:
  Message MakeCall(sd_bus* bus) const {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_method_call(bus, &made, server_, kPath, kInterface,
                                         "Echo"),
          "make a call");
    Message call(made);
    AppendBytes(call.get(), payload_.data(), payload_.size());
    return call;
  }

  static void ReadAnswer(sd_bus_message* answer) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(answer, 'y', &bytes, &size),
          "read an answer");
  }

  void CallAndWait(sd_bus* bus) const {
    sd_bus_message* answer = nullptr;
    Check(sd_bus_call(bus, MakeCall(bus).get(), 0, nullptr, &answer), "call");
    ReadAnswer(Message(answer).get());
  }

  void CallAndWait() {
    std::int64_t begun = 0;
    do {
      begun = Now();
      CallAndWait(buses_[0].get());
    } while (meter_.Ended(begun));
  }

  struct InFlight {
    Host* host;
    std::int64_t begun;
  };

  void CallInFlight() {
    std::vector<InFlight> calls(static_cast<std::size_t>(options_.in_flight),
                                {this, 0});
    for (InFlight& call : calls) Begin(&call);
    HandleUntilDone();
  }

  void Begin(InFlight* call) {
    call->begun = Now();
    sd_bus* const bus = buses_[0].get();
    Check(sd_bus_call_async(bus, nullptr, MakeCall(bus).get(), OnAnswer, call,
                            UINT64_MAX),
          "call");
  }

  static int OnAnswer(sd_bus_message* answer, void* in_flight, sd_bus_error*) {
    ReadAnswer(answer);
    auto* const call = static_cast<InFlight*>(in_flight);
    if (call->host->meter_.Ended(call->begun)) call->host->Begin(call);
    return 0;
  }

  void Watch() {
    for (const Bus& bus : buses_) {
      Check(sd_bus_match_signal(bus.get(), nullptr, server_, kPath, kInterface,
                                "CursorChanged", OnEvent, this),
            "watch");
      // After the answer, the server knows the host.
      CallAndWait(bus.get());
    }
    for (int i = 0; i < kBurstsInFlight; ++i) AskBurst();
    HandleUntilDone();
  }

  void AskBurst() {
    Check(
        sd_bus_call_method_async(buses_[0].get(), nullptr, server_, kPath,
                                 kInterface, "AskBurst", nullptr, nullptr, ""),
        "ask for events");
  }

  static int OnEvent(sd_bus_message* event, void* host, sd_bus_error*) {
    std::uint64_t browser = 0;
    std::uint32_t type = 0;
    Check(sd_bus_message_read(event, "tu", &browser, &type), "read a signal");
    static_cast<Host*>(host)->CountEvent();
    return 0;
  }

  void CountEvent() {
    if (++events_ < kBurst * options_.hosts) return;
    events_ = 0;
    if (meter_.Ended(kBurst * options_.hosts)) AskBurst();
  }

  void HandleUntilDone() {
    while (true) {
      for (const Bus& bus : buses_) {
        if (!HandleAll(bus.get())) Fail("the connection ended");
      }
      if (meter_.is_done()) return;
      std::vector<pollfd> waiting;
      waiting.reserve(buses_.size());
      for (const Bus& bus : buses_) waiting.push_back(ToPoll(bus.get()));
      poll(waiting.data(), waiting.size(), -1);
    }
  }

  const Options& options_;
  Meter& meter_;
  const char* const server_;  // Null without a daemon.
  const std::string payload_;
  std::vector<Bus> buses_;
  int events_ = 0;
};

void Drive(const Options& options, Meter& meter) { Host(options, meter).Run(); }

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
