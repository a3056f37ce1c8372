// Uses home.Thermostat: calls it, watches its events, answers its questions.

#include <iostream>
#include <string>
#include <utility>

#include "home/thermostat.client.h"
#include "orvane/client.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("thermostat");

  orvane::EventLoop loop;
  const auto connection = orvane::SocketClient::Connect(&loop, path);
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  home::ThermostatClient thermostat(connection->get());
  BrowserId kitchen;
  kitchen.set_value(7);

  // As long as these exist, the host receives events and questions.
  const auto changes = thermostat.WhenTemperatureChanged(
      kitchen, [](const home::TemperatureChanged& event) {
        std::cout << "event: the kitchen has " << event.temperature().degrees()
                  << " degrees" << std::endl;
      });
  const auto questions = thermostat.OnConfirmHeat(
      kitchen, [](const home::ConfirmHeatCall& call,
                  orvane::Responder<home::ConfirmHeat> responder) {
        home::ConfirmHeatResponse answer;
        answer.set_wanted(call.target().degrees() < 30);
        std::cout << "asked: are " << call.target().degrees()
                  << " degrees wanted? " << (answer.wanted() ? "yes" : "no")
                  << std::endl;
        std::move(responder).Respond(answer).IgnoreError();
      });

  // Each call waits for its answer; events and questions arrive meanwhile.
  for (const int degrees : {21, 28, 40}) {
    home::HeatRequest request;
    *request.mutable_room() = kitchen;
    request.mutable_target()->set_degrees(degrees);
    const auto heated = thermostat.Heat(request);
    std::cout << "answer: "
              << (heated.ok() ? "done" : heated.status().message())
              << std::endl;
  }
}
