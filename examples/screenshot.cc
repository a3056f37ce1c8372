// Saves what a browser shows as a PNG file: the shortest use of orvane::host.

#include <getopt.h>
#include <png.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "host/pixels.h"
#include "host/view.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

using orvane::host::Picture;
using orvane::host::ViewState;

constexpr int kExitUsage = 2;

struct Options {
  std::string socket = orvane::DefaultSocketPath("widget");
  BrowserId browser;
  rpc::RectDip bounds;
  bool takes_over = false;
  absl::Duration timeout = absl::Seconds(30);
  std::string file;
};

[[noreturn]] void RefuseUsage(absl::string_view what) {
  std::cerr << "screenshot: " << what << "\nSee screenshot --help.\n";
  std::exit(kExitUsage);
}

void PrintHelp() {
  std::cout << "Usage: screenshot [OPTION]... FILE.png\n"
               "Attaches a browser, saves its first picture and detaches it.\n"
               "\n"
               "  --socket PATH   the widget listens at PATH\n"
               "                  (default "
            << Options().socket
            << ")\n"
               "  --browser ID    which browser (default 1)\n"
               "  --width DIPS    how wide (default 800)\n"
               "  --height DIPS   how high (default 600)\n"
               "  --take-over     also from the host that has it\n"
               "  --timeout SECONDS\n"
               "                  how long to wait for a picture (default 30)\n"
               "  --help          print this and exit\n"
               "  --version       print the version and exit\n"
               "\n"
               "Exit code: 0 if the picture is saved, 1 if there is none,\n"
               "2 for wrong usage.\n";
}

double ParseSide(absl::string_view text) {
  double side = 0;
  if (!absl::SimpleAtod(text, &side) || side < 1 || side > 16384)
    RefuseUsage(absl::StrCat("a side has 1 to 16384 DIPs, not '", text, "'"));
  return side;
}

absl::Duration ParseTimeout(absl::string_view text) {
  double seconds = 0;
  if (!absl::SimpleAtod(text, &seconds) || !(seconds > 0))
    RefuseUsage(absl::StrCat("--timeout: '", text,
                             "' is not a number of seconds above 0"));
  return absl::Seconds(seconds);
}

Options ParseOptions(int argc, char** argv) {
  const option known[] = {{"browser", required_argument, nullptr, 'b'},
                          {"height", required_argument, nullptr, 'y'},
                          {"help", no_argument, nullptr, 'h'},
                          {"socket", required_argument, nullptr, 's'},
                          {"take-over", no_argument, nullptr, 't'},
                          {"timeout", required_argument, nullptr, 'w'},
                          {"version", no_argument, nullptr, 'v'},
                          {"width", required_argument, nullptr, 'x'},
                          {}};
  Options options;
  std::uint64_t browser = 1;
  options.bounds.set_width(800);
  options.bounds.set_height(600);
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 'b':
        if (!absl::SimpleAtoi(optarg, &browser))
          RefuseUsage(
              absl::StrCat("--browser: '", optarg, "' is not a number"));
        break;
      case 'h':
        PrintHelp();
        std::exit(EXIT_SUCCESS);
      case 's':
        options.socket = optarg;
        break;
      case 't':
        options.takes_over = true;
        break;
      case 'v':
        std::cout << "screenshot " << orvane::kVersion << "\n";
        std::exit(EXIT_SUCCESS);
      case 'w':
        options.timeout = ParseTimeout(optarg);
        break;
      case 'x':
        options.bounds.set_width(ParseSide(optarg));
        break;
      case 'y':
        options.bounds.set_height(ParseSide(optarg));
        break;
      default:
        std::exit(kExitUsage);  // getopt_long has printed what is wrong.
    }
  }
  if (optind + 1 != argc) RefuseUsage("one file is to be named");
  options.browser.set_value(browser);
  options.file = argv[optind];
  return options;
}

// The first picture of the browser at that size.
absl::StatusOr<Picture> TakePicture(const Options& options) {
  orvane::EventLoop loop;
  Picture picture;
  absl::Status copied;
  std::unique_ptr<orvane::ClientStream> surfaces;
  orvane::host::View view(
      &loop,
      {.connect = orvane::host::ConnectorTo(&loop, options.socket),
       .browser = options.browser},
      {.on_connected =
           [&](rpc::BrowserWidgetRpcClient& widget) {
             surfaces = widget.OnUpdateSurface(
                 options.browser,
                 [&](const rpc::UpdateSurfaceCall& call,
                     orvane::Responder<rpc::UpdateSurface> responder) {
                   copied = picture.Update(call.frame());
                   rpc::UpdateSurfaceResponse answer;
                   *answer.mutable_receipt() =
                       orvane::host::ReceiptFor(call.frame(), copied);
                   std::move(responder).Respond(answer).IgnoreError();
                 });
           },
       .on_state =
           [&, takes_over = options.takes_over](ViewState state) mutable {
             if (state == ViewState::kRefused &&
                 std::exchange(takes_over, false)) {
               view.TakeOver();
             }
           }});
  view.SetBounds(options.bounds, std::nullopt);
  view.SetShown(true);
  bool is_late = false;
  const auto timer = loop.RunAfter(options.timeout, [&] { is_late = true; });
  loop.RunUntil([&] {
    return !picture.is_empty() || !copied.ok() || !view.status().ok() ||
           is_late;
  });
  if (!copied.ok()) return copied;
  if (!picture.is_empty()) {
    view.Detach();
    loop.RunUntilIdle();
    return picture;
  }
  if (!view.status().ok()) return view.status();
  return absl::DeadlineExceededError(absl::StrCat(
      "browser ", options.browser.value(), " has sent no picture within ",
      absl::FormatDuration(options.timeout)));
}

// Overwrites the file.
absl::Status SavePng(const Picture& picture, const std::string& file) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.format = PNG_FORMAT_BGRA;  // Pages are opaque.
  image.width = static_cast<png_uint_32>(picture.width());
  image.height = static_cast<png_uint_32>(picture.height());
  if (png_image_write_to_file(&image, file.c_str(), /*convert_to_8_bit=*/0,
                              picture.pixels().data(), picture.stride_bytes(),
                              /*colormap=*/nullptr) == 0) {
    return absl::UnknownError(absl::StrCat(file, ": ", image.message));
  }
  return absl::OkStatus();
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  const absl::StatusOr<Picture> picture = TakePicture(options);
  const absl::Status status =
      picture.ok() ? SavePng(*picture, options.file) : picture.status();
  if (status.ok()) return EXIT_SUCCESS;
  std::cerr << "screenshot: " << orvane::Printable(status.message()) << '\n';
  return EXIT_FAILURE;
}
