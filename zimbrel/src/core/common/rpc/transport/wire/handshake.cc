#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace orvane::internal {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using rpc::transport::Hello;

namespace {

constexpr std::uint32_t kOldestProtocol = 1;
constexpr std::uint32_t kNewestProtocol = kSecondProtocol;

// 64-bit FNV-1a, which takes three lines in any language.
constexpr std::uint64_t kFnvOffset = 0xcbf29ce484222325;
constexpr std::uint64_t kFnvPrime = 0x100000001b3;

// Of a service, where the text tells what both ends call theirs.
constexpr std::size_t kMostBytesOfName = 200;

std::uint64_t Fnv1a(std::uint64_t hash, std::string_view text) {
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * kFnvPrime;
  }
  return hash;
}

std::string Line(const MethodDescriptor& method) {
  return absl::StrCat(method.name(), "(",
                      method.client_streaming() ? "stream " : "",
                      method.input_type()->full_name(), ") returns (",
                      method.server_streaming() ? "stream " : "",
                      method.output_type()->full_name(), ")\n");
}

std::string InWords(const Hello& hello) {
  const int methods = hello.methods_size();
  return absl::StrCat(
      hello.oldest_protocol() == hello.newest_protocol() ? "protocol "
                                                         : "protocols ",
      hello.oldest_protocol(),
      hello.oldest_protocol() == hello.newest_protocol()
          ? ""
          : absl::StrCat(" to ", hello.newest_protocol()),
      " and ", Printable(hello.service(), kMostBytesOfName), " with ", methods,
      " methods",
      methods == 0
          ? ""
          : absl::StrCat(
                " (", absl::Hex(hello.methods(methods - 1), absl::kZeroPad16),
                ")"));
}

absl::Status Misfit(const Hello& client, const Hello& server,
                    absl::string_view where) {
  return absl::FailedPreconditionError(
      absl::StrCat("client and server are incompatible: they differ in ", where,
                   "; the client speaks ", InWords(client), ", the server ",
                   InWords(server)));
}

}  // namespace

Hello MakeHello(const ServiceDescriptor& service) {
  Hello hello;
  hello.set_oldest_protocol(kOldestProtocol);
  hello.set_newest_protocol(kNewestProtocol);
  hello.set_service(std::string(service.full_name()));
  std::uint64_t hash = kFnvOffset;
  for (int i = 0; i < service.method_count(); ++i) {
    hash = Fnv1a(hash, Line(*service.method(i)));
    hello.add_methods(hash);
  }
  return hello;
}

std::uint32_t SpokenProtocol(const Hello& client, const Hello& server) {
  return std::min(client.newest_protocol(), server.newest_protocol());
}

absl::Status CompareHellos(const Hello& client, const Hello& server) {
  if (SpokenProtocol(client, server) <
      std::max(client.oldest_protocol(), server.oldest_protocol())) {
    return Misfit(client, server, "protocol");
  }
  if (client.service() != server.service())
    return Misfit(client, server, "service");
  const int shared = std::min(client.methods_size(), server.methods_size());
  const auto differs =
      std::mismatch(client.methods().begin(), client.methods().begin() + shared,
                    server.methods().begin());
  const auto first = differs.first - client.methods().begin();
  if (first < shared)
    return Misfit(client, server, absl::StrCat("method ", first));
  return absl::OkStatus();
}

}  // namespace orvane::internal
