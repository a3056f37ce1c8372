// docs/examples/door.cc: a service of one's own and its client, in one process.

#include <iostream>
#include <string>

#include "docs/examples/door.client.h"
#include "docs/examples/door.rpc.h"
#include "orvane/server.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"

class Door final : public building::Door {
  // Asks the client that serves OnConfirm whether it may.
  void Open(google::protobuf::RpcController* controller,
            const BrowserId* request, google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    orvane::Call<building::Confirm>(
        *request, {},
        [controller, request,
         done](const absl::StatusOr<building::Confirm::Response>& answer) {
          if (answer.ok()) {
            building::Moved moved;
            moved.set_is_open(answer->may_open());
            orvane::Publish<building::Moved>(*request, moved);
            if (!answer->may_open()) controller->SetFailed("it stays shut");
          } else {
            controller->SetFailed(std::string(answer.status().message()));
          }
          done->Run();
        });
  }
};

int main() {
  orvane::EventLoop loop;
  Door door;
  orvane::SocketServer server(&loop, &door);
  const auto connection = orvane::ConnectInProcess(&loop, &server);
  if (!connection.ok()) return 1;

  building::DoorClient client(connection->get());
  BrowserId front_door;
  front_door.set_value(1);
  std::cout << client.Open(front_door).status().message() << std::endl;

  const auto moves =
      client.WhenMoved(front_door, [](const building::Moved& event) {
        std::cout << (event.is_open() ? "open" : "shut") << std::endl;
      });
  const auto confirms = client.OnConfirm(
      front_door, [](const building::Confirm::Call&,
                     orvane::Responder<building::Confirm> responder) {
        building::Confirm::Response response;
        response.set_may_open(true);
        std::move(responder).Respond(response).IgnoreError();
      });
  if (client.Open(front_door).ok()) std::cout << "opened" << std::endl;
}
