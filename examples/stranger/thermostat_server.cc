// Serves home.Thermostat: answers a call, publishes events, asks the host.

#include <csignal>
#include <iostream>
#include <string>

#include "home/thermostat.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

class HomeThermostat final : public home::Thermostat {
  void Heat(google::protobuf::RpcController* controller,
            const home::HeatRequest* request, google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    constexpr int kHot = 25;
    if (request->target().degrees() < kHot) {
      SetTemperature(*request);
      done->Run();
      return;
    }

    // Asks first. The call that is being served is answered later then, once,
    // by whichever of the two continuations runs.
    home::ConfirmHeatCall question;
    *question.mutable_target() = request->target();
    const auto asked = orvane::Call<home::ConfirmHeat>(
        request->room(), question,
        [controller, request, done](const home::ConfirmHeatResponse& answer) {
          if (answer.wanted()) {
            SetTemperature(*request);
          } else {
            controller->SetFailed("too hot for the host");
          }
          done->Run();
        },
        [controller, done](const absl::Status& why) {
          controller->SetFailed(std::string(why.message()));
          done->Run();
        },
        {.timeout = absl::Seconds(10)});
    if (!asked.ok()) {
      controller->SetFailed("nobody is there to ask");
      done->Run();
    }
  }

  static void SetTemperature(const home::HeatRequest& request) {
    std::cout << "room " << request.room().value() << " has "
              << request.target().degrees() << " degrees" << std::endl;
    home::TemperatureChanged event;
    *event.mutable_temperature() = request.target();
    orvane::Publish<home::TemperatureChanged>(request.room(), event);
  }
};

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("thermostat");

  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  HomeThermostat thermostat;
  orvane::SocketServer server(&loop, &thermostat);
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "thermostat_server listens" << std::endl;
  loop.Run();
}
