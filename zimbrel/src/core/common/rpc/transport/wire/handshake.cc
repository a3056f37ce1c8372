#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace orvane::internal {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using rpc::transport::Hello;

namespace {

constexpr std::uint32_t kProtocol = 1;

// 64-bit FNV-1a, which takes three lines in any language.
constexpr std::uint64_t kFnvOffset = 0xcbf29ce484222325;
constexpr std::uint64_t kFnvPrime = 0x100000001b3;

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
      " and ", hello.service(), " with ", methods, " methods",
      methods == 0
          ? ""
          : absl::StrCat(
                " (", absl::Hex(hello.methods(methods - 1), absl::kZeroPad16),
                ")"));
}

absl::Status Misfit(const Hello& host, const Hello& widget,
                    absl::string_view where) {
  return absl::FailedPreconditionError(absl::StrCat(
      "host and widget do not fit: they differ in ", where,
      "; the host speaks ", InWords(host), ", the widget ", InWords(widget)));
}

}  // namespace

Hello Introduce(const ServiceDescriptor& service) {
  Hello hello;
  hello.set_oldest_protocol(kProtocol);
  hello.set_newest_protocol(kProtocol);
  hello.set_service(std::string(service.full_name()));
  std::uint64_t hash = kFnvOffset;
  for (int i = 0; i < service.method_count(); ++i) {
    hash = Fnv1a(hash, Line(*service.method(i)));
    hello.add_methods(hash);
  }
  return hello;
}

absl::Status CheckFit(const Hello& host, const Hello& widget) {
  const std::uint32_t spoken =
      std::min(host.newest_protocol(), widget.newest_protocol());
  if (spoken < std::max(host.oldest_protocol(), widget.oldest_protocol()))
    return Misfit(host, widget, "protocol");
  if (host.service() != widget.service())
    return Misfit(host, widget, "service");
  const int shared = std::min(host.methods_size(), widget.methods_size());
  const auto differs =
      std::mismatch(host.methods().begin(), host.methods().begin() + shared,
                    widget.methods().begin());
  const auto first = differs.first - host.methods().begin();
  if (first < shared)
    return Misfit(host, widget, absl::StrCat("method ", first));
  return absl::OkStatus();
}

}  // namespace orvane::internal
