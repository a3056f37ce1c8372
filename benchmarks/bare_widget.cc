// In a file of its own, so that the compiler cannot inline the calls into the
// benchmark.

#include "benchmarks/bare_widget.h"

namespace benchmarks {
namespace {

enum Index {
#define ENUMERATE(Name, Request, Response) k##Name,
  UNARY_METHODS(ENUMERATE)
#undef ENUMERATE
};

}  // namespace

void BareWidget::Call(int index, google::protobuf::RpcController* controller,
                      const google::protobuf::Message* request,
                      google::protobuf::Message* response,
                      google::protobuf::Closure* done) {
  switch (index) {
#define CALL(Name, Request, Response)                      \
  case k##Name:                                            \
    Name(controller, static_cast<const Request*>(request), \
         static_cast<Response*>(response), done);          \
    break;
    UNARY_METHODS(CALL)
#undef CALL
  }
}

}  // namespace benchmarks
