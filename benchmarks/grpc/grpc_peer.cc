// gRPC over a Unix-domain socket.
//
//   --interface sync             blocking stubs and handlers; one thread for
//                                each call in flight
//   --interface callback         reactors on both sides; the end of a call
//                                begins the next
//   --interface sync-stream      unary: a call is a message each way on one
//   --interface callback-stream  stream that stays open
//
// A gRPC server cannot call its clients, so events and calls from the server go
// through bidirectional streams. With `sync` the events of a burst are written
// with the hint that more follow, except the last, and except the first of the
// stream, since a stream whose first write has the hint does not move. So are
// the messages of `callback-stream`, if others wait to be written.

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/grpc/echo_stream.grpc.pb.h"
#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.grpc.pb.h"

namespace benchmarks {
namespace {

using google::protobuf::Empty;
using rpc::CursorChanged;
using rpc::EventSubscription;
using rpc::TakeFocus;

bool IsCallback(const Options& options) {
  const std::string& name = options.interface;
  if (name == "callback" || name == "callback-stream") return true;
  if (name == "sync" || name == "sync-stream" || name.empty()) return false;
  Fail("--interface is sync, callback, sync-stream or callback-stream");
}

bool IsOneStream(const Options& options) {
  return options.interface.ends_with("-stream");
}

grpc::WriteOptions MoreFollow(bool do_follow) {
  grpc::WriteOptions options;
  if (do_follow) options.set_buffer_hint();
  return options;
}

void CheckOk(const grpc::Status& status) {
  if (!status.ok()) Fail(status.error_message());
}

// Servers -------------------------------------------------------------------

class SyncServer final : public PeerRpc::Service {
 public:
  explicit SyncServer(Meter& meter) : meter_(meter) {}

  grpc::Status Echo(grpc::ServerContext*, const Payload* request,
                    Payload* response) override {
    response->set_data(request->data());
    return grpc::Status::OK;
  }

  grpc::Status Upload(grpc::ServerContext*, const Payload*, Empty*) override {
    return grpc::Status::OK;
  }

  grpc::Status ForwardMouseMove(grpc::ServerContext*,
                                const rpc::MouseMoveRequest* request,
                                Empty*) override {
    meter_.Ended(request->input().time_ns());
    return grpc::Status::OK;
  }

  // Each subscription asks for a burst.
  grpc::Status WhenCursorChanged(
      grpc::ServerContext*,
      grpc::ServerReaderWriter<CursorChanged, EventSubscription>* stream)
      override {
    const CursorChanged event = CursorEvent();
    EventSubscription asked;
    while (stream->Read(&asked)) {
      for (int i = 0; i < kBurst; ++i) {
        stream->Write(event, MoreFollow(i > 0 && i + 1 < kBurst));
      }
    }
    return grpc::Status::OK;
  }

  grpc::Status OnTakeFocus(
      grpc::ServerContext*,
      grpc::ServerReaderWriter<TakeFocus, TakeFocus>* stream) override {
    TakeFocus message;
    stream->Read(&message);  // The host subscribes.
    while (true) {
      const std::int64_t begun = Now();
      message.mutable_call();
      if (!stream->Write(message) || !stream->Read(&message)) break;
      if (!meter_.Ended(begun)) std::_Exit(0);
    }
    return grpc::Status::OK;
  }

 private:
  Meter& meter_;
};

class CallbackServer final : public PeerRpc::CallbackService {
 public:
  explicit CallbackServer(Meter& meter) : meter_(meter) {}

  grpc::ServerUnaryReactor* Echo(grpc::CallbackServerContext* context,
                                 const Payload* request,
                                 Payload* response) override {
    response->set_data(request->data());
    return Finished(context);
  }

  grpc::ServerUnaryReactor* Upload(grpc::CallbackServerContext* context,
                                   const Payload*, Empty*) override {
    return Finished(context);
  }

  grpc::ServerUnaryReactor* ForwardMouseMove(
      grpc::CallbackServerContext* context,
      const rpc::MouseMoveRequest* request, Empty*) override {
    meter_.Ended(request->input().time_ns());
    return Finished(context);
  }

  grpc::ServerBidiReactor<EventSubscription, CursorChanged>* WhenCursorChanged(
      grpc::CallbackServerContext*) override {
    class Reactor final
        : public grpc::ServerBidiReactor<EventSubscription, CursorChanged> {
     public:
      Reactor() { StartRead(&asked_); }

      void OnReadDone(bool ok) override {
        if (!ok) return Finish(grpc::Status::OK);
        if (left_.fetch_add(kBurst) == 0) StartWrite(&event_);
        StartRead(&asked_);
      }

      void OnWriteDone(bool ok) override {
        if (ok && left_.fetch_sub(1) > 1) StartWrite(&event_);
      }

      void OnDone() override { delete this; }

     private:
      const CursorChanged event_ = CursorEvent();
      EventSubscription asked_;
      std::atomic<int> left_{0};
    };
    return new Reactor;
  }

  grpc::ServerBidiReactor<TakeFocus, TakeFocus>* OnTakeFocus(
      grpc::CallbackServerContext*) override {
    class Reactor final : public grpc::ServerBidiReactor<TakeFocus, TakeFocus> {
     public:
      explicit Reactor(Meter& meter) : meter_(meter) { StartRead(&message_); }

      void OnReadDone(bool ok) override {
        if (!ok) return Finish(grpc::Status::OK);
        if (message_.has_response() && !meter_.Ended(begun_)) std::_Exit(0);
        begun_ = Now();
        message_.mutable_call();
        StartWrite(&message_);
      }

      void OnWriteDone(bool ok) override {
        if (ok) StartRead(&message_);
      }

      void OnDone() override { delete this; }

     private:
      Meter& meter_;
      TakeFocus message_;
      std::int64_t begun_ = 0;
    };
    return new Reactor(meter_);
  }

 private:
  static grpc::ServerUnaryReactor* Finished(
      grpc::CallbackServerContext* context) {
    grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }

  Meter& meter_;
};

class SyncStreamServer final : public EchoStreamRpc::Service {
 public:
  grpc::Status Echo(
      grpc::ServerContext*,
      grpc::ServerReaderWriter<Payload, Payload>* stream) override {
    Payload payload;
    while (stream->Read(&payload) && stream->Write(payload)) continue;
    return grpc::Status::OK;
  }
};

class CallbackStreamServer final : public EchoStreamRpc::CallbackService {
 public:
  grpc::ServerBidiReactor<Payload, Payload>* Echo(
      grpc::CallbackServerContext*) override {
    // Reads on while it writes, since several calls may be in flight.
    class Reactor final : public grpc::ServerBidiReactor<Payload, Payload> {
     public:
      Reactor() { StartRead(&request_); }

      void OnReadDone(bool ok) override {
        if (!ok) return Finish(grpc::Status::OK);
        {
          const std::lock_guard lock(mutex_);
          answers_.push_back(std::move(request_));
          if (answers_.size() == 1) WriteFirst();
        }
        StartRead(&request_);
      }

      void OnWriteDone(bool ok) override {
        if (!ok) return;
        const std::lock_guard lock(mutex_);
        answers_.pop_front();
        if (!answers_.empty()) WriteFirst();
      }

      void OnDone() override { delete this; }

     private:
      void WriteFirst() {
        StartWrite(&answers_.front(), MoreFollow(answers_.size() > 1));
      }

      Payload request_;
      std::mutex mutex_;
      std::deque<Payload> answers_;  // The first one is being written.
    };
    return new Reactor;
  }
};

std::unique_ptr<grpc::Service> MakeService(const Options& options,
                                           Meter& meter) {
  if (IsOneStream(options)) {
    if (IsCallback(options)) return std::make_unique<CallbackStreamServer>();
    return std::make_unique<SyncStreamServer>();
  }
  if (IsCallback(options)) return std::make_unique<CallbackServer>(meter);
  return std::make_unique<SyncServer>(meter);
}

void Serve(const Options& options, Meter& meter) {
  const std::unique_ptr<grpc::Service> service = MakeService(options, meter);
  grpc::ServerBuilder builder;
  builder.SetMaxReceiveMessageSize(-1);
  builder.AddListeningPort("unix:" + options.socket_path,
                           grpc::InsecureServerCredentials());
  builder.RegisterService(service.get());
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (server == nullptr) Fail("cannot listen");
  meter.SetReady();
  server->Wait();
}

// Hosts ---------------------------------------------------------------------

using Stub = std::unique_ptr<PeerRpc::Stub>;

Payload RequestPayload(const Options& options) {
  Payload payload;
  payload.set_data(std::string(options.payload_bytes, '\0'));
  return payload;
}

class Host {
 public:
  Host(const Options& options, Meter& meter, std::vector<Stub> stubs)
      : options_(options),
        meter_(meter),
        stubs_(std::move(stubs)),
        payload_(RequestPayload(options)) {}

  void Run() {
    const bool is_callback = IsCallback(options_);
    switch (options_.figure) {
      case Figure::kUnary:
        return is_callback ? CallBack(&PeerRpc::Stub::async::Echo, Payload())
                           : Block(&PeerRpc::Stub::Echo, Payload());
      case Figure::kUpload:
        return is_callback ? CallBack(&PeerRpc::Stub::async::Upload, Empty())
                           : Block(&PeerRpc::Stub::Upload, Empty());
      case Figure::kStorm:
        return SendMoves();
      case Figure::kEvents:
        return is_callback ? WatchByCallback() : Watch();
      case Figure::kCallback:
        return Answer();
      case Figure::kSurface:
        Fail("gRPC carries pictures as uploads; measure upload");
      case Figure::kPosts:
      case Figure::kIdle:
        Fail("posts and idle are measured in toolkits' main loops");
    }
  }

 private:
  // Uses one thread for each call in flight.
  template <typename Call, typename Response>
  void Block(Call call, Response response) {
    std::vector<std::thread> threads;
    for (int i = 0; i < options_.in_flight; ++i) {
      threads.emplace_back([this, call, response]() mutable {
        std::int64_t begun;
        do {
          begun = Now();
          grpc::ClientContext context;
          CheckOk(((*stubs_[0]).*call)(&context, payload_, &response));
        } while (meter_.Ended(begun));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  // The end of each call begins the next.
  template <typename Response>
  void CallBack(void (PeerRpc::Stub::async::*call)(
                    grpc::ClientContext*, const Payload*, Response*,
                    std::function<void(grpc::Status)>),
                Response) {
    struct InFlight {
      std::unique_ptr<grpc::ClientContext> context;
      Response response;
      std::int64_t begun;
    };
    std::latch ended(options_.in_flight);
    std::vector<InFlight> calls(static_cast<std::size_t>(options_.in_flight));
    std::function<void(InFlight&)> begin = [&](InFlight& one) {
      one.context = std::make_unique<grpc::ClientContext>();
      one.begun = Now();
      (stubs_[0]->async()->*call)(one.context.get(), &payload_, &one.response,
                                  [&](grpc::Status status) {
                                    CheckOk(status);
                                    if (meter_.Ended(one.begun))
                                      return begin(one);
                                    ended.count_down();
                                  });
    };
    for (InFlight& one : calls) begin(one);
    ended.wait();
  }

  void SendMoves() {
    struct Move {
      grpc::ClientContext context;
      rpc::MouseMoveRequest request = MouseMove();
      Empty response;
    };
    std::atomic<int> in_flight = 0;
    std::int64_t next = Now();
    for (std::size_t i = 0; !meter_.is_done(); ++i) {
      next += kStormPeriodNs / options_.hosts;
      SleepUntil(next);
      const auto move = std::make_shared<Move>();
      move->request.mutable_input()->set_time_ns(Now());
      ++in_flight;
      stubs_[i % stubs_.size()]->async()->ForwardMouseMove(
          &move->context, &move->request, &move->response,
          [move, &in_flight](const grpc::Status&) { --in_flight; });
    }
    while (in_flight > 0) std::this_thread::yield();
  }

  // Uses one thread and one stream for each host.
  void Watch() {
    std::vector<std::thread> threads;
    for (const Stub& stub : stubs_) {
      threads.emplace_back([this, &stub] {
        grpc::ClientContext context;
        const auto stream = stub->WhenCursorChanged(&context);
        for (int i = 0; i < kBurstsInFlight; ++i) stream->Write({});
        CursorChanged event;
        for (int events = 1; stream->Read(&event); ++events) {
          if (events % kBurst != 0) continue;
          if (!meter_.Ended(kBurst)) break;
          stream->Write({});
        }
        context.TryCancel();
        stream->Finish();
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  void WatchByCallback() {
    class Reactor final
        : public grpc::ClientBidiReactor<EventSubscription, CursorChanged> {
     public:
      Reactor(PeerRpc::Stub& stub, Meter& meter, std::latch& ended)
          : meter_(meter), ended_(ended) {
        stub.async()->WhenCursorChanged(&context_, this);
        asks_ = kBurstsInFlight;
        StartWrite(&ask_);
        StartRead(&event_);
        StartCall();
      }

      void OnReadDone(bool ok) override {
        if (!ok) return;
        if (++events_ % kBurst == 0) {
          if (!meter_.Ended(kBurst)) return context_.TryCancel();
          if (asks_++ == 0) StartWrite(&ask_);
        }
        StartRead(&event_);
      }

      void OnWriteDone(bool ok) override {
        if (ok && --asks_ > 0) StartWrite(&ask_);
      }

      void OnDone(const grpc::Status&) override { ended_.count_down(); }

     private:
      Meter& meter_;
      std::latch& ended_;
      grpc::ClientContext context_;
      const EventSubscription ask_;
      CursorChanged event_;
      int events_ = 0;
      std::atomic<int> asks_{0};
    };
    std::latch ended(options_.hosts);
    std::vector<std::unique_ptr<Reactor>> reactors;
    for (const Stub& stub : stubs_)
      reactors.push_back(std::make_unique<Reactor>(*stub, meter_, ended));
    ended.wait();
  }

  // Answers until the server ends.
  void Answer() {
    grpc::ClientContext context;
    const auto stream = stubs_[0]->OnTakeFocus(&context);
    TakeFocus message;
    message.set_subscribe(true);
    do {
      if (!stream->Write(message) || !stream->Read(&message)) return;
      message.mutable_response();
    } while (true);
  }

  const Options& options_;
  Meter& meter_;
  const std::vector<Stub> stubs_;
  const Payload payload_;
};

// When each call in flight on one stream has begun. They end in the order in
// which they began, and the end of each begins the next.
class CallsInFlight {
 public:
  CallsInFlight(const Options& options, Meter& meter)
      : meter_(meter),
        begun_(static_cast<std::size_t>(options.in_flight), Now()) {}

  // False once the measurement is over.
  bool EndFirst() {
    std::int64_t& begun = begun_[ended_++ % begun_.size()];
    const bool goes_on = meter_.Ended(begun);
    begun = Now();
    return goes_on;
  }

 private:
  Meter& meter_;
  std::vector<std::int64_t> begun_;
  std::size_t ended_ = 0;
};

void CallOnStream(const Options& options, Meter& meter,
                  EchoStreamRpc::Stub& stub) {
  const Payload request = RequestPayload(options);
  grpc::ClientContext context;
  const auto stream = stub.Echo(&context);
  CallsInFlight calls(options, meter);
  for (int i = 0; i < options.in_flight; ++i)
    stream->Write(request, MoreFollow(i > 0 && i + 1 < options.in_flight));
  Payload response;
  while (stream->Read(&response) && calls.EndFirst()) stream->Write(request);
  context.TryCancel();
  stream->Finish();
}

void CallOnStreamByCallback(const Options& options, Meter& meter,
                            EchoStreamRpc::Stub& stub) {
  class Reactor final : public grpc::ClientBidiReactor<Payload, Payload> {
   public:
    Reactor(const Options& options, Meter& meter, EchoStreamRpc::Stub& stub)
        : request_(RequestPayload(options)),
          calls_(options, meter),
          to_write_(options.in_flight) {
      stub.async()->Echo(&context_, this);
      StartWrite(&request_);
      StartRead(&response_);
      StartCall();
    }

    void OnReadDone(bool ok) override {
      if (!ok) return;
      if (!calls_.EndFirst()) return context_.TryCancel();
      if (to_write_++ == 0) StartWrite(&request_);
      StartRead(&response_);
    }

    void OnWriteDone(bool ok) override {
      if (!ok) return;
      if (const int left = --to_write_; left > 0)
        StartWrite(&request_, MoreFollow(left > 1));
    }

    void OnDone(const grpc::Status&) override { ended_.count_down(); }

    void AwaitEnd() { ended_.wait(); }

   private:
    grpc::ClientContext context_;
    const Payload request_;
    Payload response_;
    CallsInFlight calls_;
    std::atomic<int> to_write_;  // With the one that is being written.
    std::latch ended_{1};
  };
  Reactor(options, meter, stub).AwaitEnd();
}

std::shared_ptr<grpc::Channel> Connect(const Options& options) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  // Without this, channels to the same address share one connection.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel("unix:" + options.socket_path,
                                   grpc::InsecureChannelCredentials(),
                                   arguments);
}

void Drive(const Options& options, Meter& meter) {
  if (IsOneStream(options)) {
    if (options.figure != Figure::kUnary)
      Fail("one stream carries calls; measure unary");
    EchoStreamRpc::Stub stub(Connect(options));
    return IsCallback(options) ? CallOnStreamByCallback(options, meter, stub)
                               : CallOnStream(options, meter, stub);
  }
  std::vector<Stub> stubs;
  for (int i = 0; i < options.hosts; ++i)
    stubs.push_back(PeerRpc::NewStub(Connect(options)));
  Host(options, meter, std::move(stubs)).Run();
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
