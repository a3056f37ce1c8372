// Serves home.Thermostat: answers a call, publishes events, asks the host.

#include <csignal>
#include <iostream>
#include <string>

#include "home/thermostat.rpc.h"
#include "orvane/server.h"

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

    // Asks the host first. The continuation, which runs exactly once, answers
    // the call later.
    home::ConfirmHeatCall question;
    *question.mutable_target() = request->target();
    orvane::Call<home::ConfirmHeat>(
        request->room(), question,
        [controller, request,
         done](const absl::StatusOr<home::ConfirmHeatResponse>& answer) {
          if (absl::IsNotFound(answer.status())) {
            controller->SetFailed("there is no host to ask");
          } else if (!answer.ok()) {
            controller->SetFailed(std::string(answer.status().message()));
          } else if (!answer->wanted()) {
            controller->SetFailed("the host does not want that");
          } else {
            SetTemperature(*request);
          }
          done->Run();
        },
        {.timeout = absl::Seconds(10)});
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
  HomeThermostat thermostat;
  orvane::SocketServer server(&loop, &thermostat);
  // Who waits for an answer is told, and has some time to read it.
  loop.OnSignal({SIGINT, SIGTERM}, [&] {
    server.Shutdown(absl::Seconds(2), [&loop] { loop.Stop(); });
  });
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "thermostat_server listens" << std::endl;
  loop.Run();
}
