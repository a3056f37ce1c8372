#include "examples/screen_fixture.h"

// clang-format off
#include <X11/Xlib.h>
#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>

#include "zimbrel/src/core/common/rpc/main_loops/xlib_names.h"
// clang-format on

#include <fcntl.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "absl/cleanup/cleanup.h"
#include "absl/log/log.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "absl/time/clock.h"

namespace examples::testing {
namespace {

constexpr char kServer[] = "/usr/bin/Xvfb";
constexpr char kWindowManager[] = "/usr/bin/metacity";

// A window of 900 by 640 fits at twice its size, with its frame.
constexpr char kSize[] = "1920x1440x24";

constexpr absl::Duration kStartBound = absl::Seconds(30);

// Windows come and go while they are asked.
int IgnoreError(Display*, XErrorEvent*) { return 0; }

}  // namespace

Rgb Image::At(const Point& point) const {
  if (point.x < 0 || point.x >= width_ || point.y < 0 || point.y >= height())
    return 0;
  return pixels_[static_cast<std::size_t>(point.y * width_ + point.x)];
}

std::optional<Area> Image::Find(Rgb color) const {
  int left = width_;
  int right = -1;
  int top = height();
  int bottom = -1;
  for (int y = 0; y < height(); ++y) {
    const auto row = pixels_.begin() + y * width_;
    const auto first = std::find(row, row + width_, color);
    if (first == row + width_) continue;
    const auto last = std::find(std::make_reverse_iterator(row + width_),
                                std::make_reverse_iterator(first), color);
    left = std::min(left, static_cast<int>(first - row));
    right = std::max(right, static_cast<int>(last.base() - row));
    top = std::min(top, y);
    bottom = y + 1;
  }
  if (bottom < 0) return std::nullopt;
  return Area{left, top, right - left, bottom - top};
}

void Image::SaveAsPng(const std::string& path) const {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width_);
  image.height = static_cast<png_uint_32>(height());
  image.format = PNG_FORMAT_RGB;
  std::vector<png_byte> bytes;
  bytes.reserve(3 * pixels_.size());
  for (const Rgb pixel : pixels_) {
    for (const int shift : {16, 8, 0})
      bytes.push_back(static_cast<png_byte>(pixel >> shift));
  }
  if (png_image_write_to_file(&image, path.c_str(), 0, bytes.data(), 0,
                              nullptr) == 0)
    LOG(FATAL) << path << ": " << image.message;
}

struct Screen::Connection {
  explicit Connection(const std::string& name)
      : display(XOpenDisplay(name.c_str())) {
    if (display == nullptr) LOG(FATAL) << "no screen at " << name;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { XCloseDisplay(display); }

  Window root() const { return DefaultRootWindow(display); }
  Atom AtomOf(const char* name) const {
    return XInternAtom(display, name, False);
  }

  // The bytes of a window's property, or none.
  template <typename Item>
  std::vector<Item> Property(Window window, const char* name) const {
    Atom type = None;
    int bits = 0;
    unsigned long count = 0;
    unsigned long left = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(display, window, AtomOf(name), 0, 1024, False,
                           AnyPropertyType, &type, &bits, &count, &left,
                           &data) != Success ||
        data == nullptr) {
      return {};
    }
    const auto* const items = reinterpret_cast<const Item*>(data);
    std::vector<Item> property(count);
    std::copy_n(items, count, property.begin());
    XFree(data);
    return property;
  }

  void Send(Window receiver, long mask, Window window, const char* message,
            std::array<long, 5> data) {
    XEvent event = {};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = AtomOf(message);
    event.xclient.format = 32;
    std::copy(data.begin(), data.end(), event.xclient.data.l);
    XSendEvent(display, receiver, False, mask, &event);
    XSync(display, False);
  }
  void AskTheWindowManager(Window window, const char* message,
                           std::array<long, 5> data) {
    Send(root(), SubstructureNotifyMask | SubstructureRedirectMask, window,
         message, data);
  }

  Image Take(const Area& area) const {
    XImage* const image = XGetImage(
        display, root(), area.x, area.y, static_cast<unsigned>(area.width),
        static_cast<unsigned>(area.height), AllPlanes, ZPixmap);
    if (image == nullptr || image->bits_per_pixel != 32)
      LOG(FATAL) << "the screen cannot be read";
    const auto* const words =
        reinterpret_cast<const std::uint32_t*>(image->data);
    std::vector<Rgb> pixels(words, words + area.width * area.height);
    for (Rgb& pixel : pixels) pixel &= 0xffffff;
    XDestroyImage(image);
    return Image(area.width, std::move(pixels));
  }

  Display* const display;
};

std::string Screen::Missing() {
  for (const char* const program : {kServer, kWindowManager}) {
    if (!std::filesystem::exists(program))
      return absl::StrCat("no display program ", program);
  }
  return "";
}

// The server ends with the test, and so does everything that it shows.
Screen::Screen()
    : server_({"/usr/bin/setpriv", "--pdeathsig", "KILL", kServer, "-displayfd",
               "1", "-screen", "0", kSize, "-noreset", "-nolisten", "tcp"}),
      name_(absl::StrCat(":", server_.ReadLine())),
      asked_((XSetErrorHandler(IgnoreError), new Connection(name_))),
      watched_(new Connection(name_)) {
  XDamageCreate(watched_->display, watched_->root(),
                XDamageReportRawRectangles);
  XSelectInput(watched_->display, watched_->root(),
               PropertyChangeMask | SubstructureNotifyMask);
  XFixesSelectCursorInput(watched_->display, watched_->root(),
                          XFixesDisplayCursorNotifyMask);
  XFlush(watched_->display);
  auto watch = loop_.WatchDescriptor(orvane::OwnedDescriptor(
      ::fcntl(ConnectionNumber(watched_->display), F_DUPFD_CLOEXEC, 0)));
  if (!watch.ok()) LOG(FATAL) << watch.status();
  watch_ = *std::move(watch);
  OnChange();

  window_manager_ = std::make_unique<orvane::testing::ChildProcess>(
      CommandOf({kWindowManager, "--sm-disable", "--compositor=none"}));
  const auto is_managed = [this] {
    return !asked_->Property<Window>(asked_->root(), "_NET_SUPPORTING_WM_CHECK")
                .empty();
  };
  if (!RunUntil(is_managed, absl::Now() + kStartBound))
    LOG(FATAL) << "the window manager does not come up";
}

Screen::~Screen() = default;

void Screen::OnChange() {
  const auto ping = static_cast<long>(watched_->AtomOf("_NET_WM_PING"));
  while (XPending(watched_->display) > 0) {
    XEvent event;
    XNextEvent(watched_->display, &event);
    if (event.type == ClientMessage && event.xclient.data.l[0] == ping)
      answered_ = std::max(answered_, event.xclient.data.l[1]);
  }
  watch_->WhenReadable([this] { OnChange(); });
}

std::vector<std::string> Screen::CommandOf(
    std::vector<std::string> program,
    const std::vector<std::string>& environment) const {
  // Nothing of the user's session, and no drawing by OpenGL in software.
  std::vector<std::string> command = {
      "/usr/bin/env",         "DISPLAY=" + name_,
      "GDK_BACKEND=x11",      "DBUS_SESSION_BUS_ADDRESS=disabled:",
      "GSK_RENDERER=cairo",   "GSETTINGS_BACKEND=memory",
      "GTK_A11Y=none",        "GTK_IM_MODULE=gtk-im-context-simple",
      "GTK_THEME=Adwaita",    "GTK_USE_PORTAL=0",
      "CANBERRA_DRIVER=null", "LC_ALL=C.UTF-8"};
  command.insert(command.end(), environment.begin(), environment.end());
  std::move(program.begin(), program.end(), std::back_inserter(command));
  return command;
}

bool Screen::RunUntil(absl::FunctionRef<bool()> is_true, absl::Time deadline) {
  if (is_true()) return true;
  bool is_late = false;
  const auto timer =
      loop_.RunAfter(deadline - absl::Now(), [&is_late] { is_late = true; });
  bool was_true = false;
  loop_.RunUntil([&] {
    was_true = is_true();
    return was_true || is_late;
  });
  return was_true;
}

// Input

void Screen::MoveTo(const Point& point) {
  XTestFakeMotionEvent(asked_->display, -1, point.x, point.y, 0);
  XSync(asked_->display, False);
}

void Screen::Press(unsigned button) {
  XTestFakeButtonEvent(asked_->display, button, True, 0);
  XSync(asked_->display, False);
}

void Screen::Release(unsigned button) {
  XTestFakeButtonEvent(asked_->display, button, False, 0);
  XSync(asked_->display, False);
}

void Screen::Click(const Point& point) {
  MoveTo(point);
  Press();
  Release();
}

void Screen::Type(const std::string& text) {
  for (const char character : text) {
    const auto symbol = static_cast<KeySym>(character);
    const KeyCode key = XKeysymToKeycode(asked_->display, symbol);
    if (key == 0) LOG(FATAL) << "no key for '" << character << "'";
    const bool is_plain =
        XkbKeycodeToKeysym(asked_->display, key, 0, 0) == symbol;
    PressKey(absl::StrCat(is_plain ? "" : "shift+", XKeysymToString(symbol)));
  }
}

void Screen::PressKey(const std::string& name) {
  std::vector<KeyCode> keys;
  for (const absl::string_view part : absl::StrSplit(name, '+')) {
    const KeySym symbol = part == "shift"
                              ? XK_Shift_L
                              : XStringToKeysym(std::string(part).c_str());
    keys.push_back(XKeysymToKeycode(asked_->display, symbol));
    if (keys.back() == 0) LOG(FATAL) << "no key " << part;
  }
  for (const KeyCode key : keys)
    XTestFakeKeyEvent(asked_->display, key, True, 0);
  std::reverse(keys.begin(), keys.end());
  for (const KeyCode key : keys)
    XTestFakeKeyEvent(asked_->display, key, False, 0);
  XSync(asked_->display, False);
}

void Screen::ReleaseAll() {
  for (unsigned button = 1; button <= 3; ++button) Release(button);
}

// What is seen

Image Screen::Take() const {
  const int screen = DefaultScreen(asked_->display);
  return asked_->Take({0, 0, DisplayWidth(asked_->display, screen),
                       DisplayHeight(asked_->display, screen)});
}

Image Screen::Take(const Area& area) const { return asked_->Take(area); }

Rgb Screen::ColorAt(const Point& point) const {
  return asked_->Take({point.x, point.y, 1, 1}).At({0, 0});
}

std::string Screen::Cursor() const {
  XFixesCursorImage* const cursor = XFixesGetCursorImage(asked_->display);
  if (cursor == nullptr) LOG(FATAL) << "no cursor";
  std::string name = cursor->name == nullptr ? "" : cursor->name;
  XFree(cursor);
  return name;
}

// Windows

std::vector<WindowId> Screen::Windows() const {
  return asked_->Property<Window>(asked_->root(), "_NET_CLIENT_LIST");
}

std::string Screen::TitleOf(WindowId window) const {
  const auto title = asked_->Property<char>(window, "_NET_WM_NAME");
  return {title.begin(), title.end()};
}

Area Screen::PlaceOf(WindowId window) const {
  XWindowAttributes attributes;
  Area area;
  Window child = None;
  if (XGetWindowAttributes(asked_->display, window, &attributes) == 0 ||
      XTranslateCoordinates(asked_->display, window, asked_->root(), 0, 0,
                            &area.x, &area.y, &child) == 0) {
    return {};
  }
  area.width = attributes.width;
  area.height = attributes.height;
  return area;
}

bool Screen::IsActive(WindowId window) const {
  const auto active =
      asked_->Property<Window>(asked_->root(), "_NET_ACTIVE_WINDOW");
  return !active.empty() && active.front() == window;
}

void Screen::Resize(WindowId window, int width, int height) {
  XResizeWindow(asked_->display, window, static_cast<unsigned>(width),
                static_cast<unsigned>(height));
  XSync(asked_->display, False);
}

void Screen::Minimize(WindowId window) {
  asked_->AskTheWindowManager(window, "WM_CHANGE_STATE", {IconicState});
}

void Screen::Restore(WindowId window) {
  constexpr long kFromAPager = 2;
  asked_->AskTheWindowManager(window, "_NET_ACTIVE_WINDOW", {kFromAPager});
}

void Screen::Close(WindowId window) {
  asked_->AskTheWindowManager(window, "_NET_CLOSE_WINDOW", {});
}

pid_t Screen::ProcessOf(WindowId window) const {
  const auto process = asked_->Property<long>(window, "_NET_WM_PID");
  return process.empty() ? 0 : static_cast<pid_t>(process.front());
}

long Screen::Ping(WindowId window) {
  asked_->Send(window, NoEventMask, window, "WM_PROTOCOLS",
               {static_cast<long>(asked_->AtomOf("_NET_WM_PING")), ++pings_,
                static_cast<long>(window)});
  return pings_;
}

std::optional<Area> Screen::Popup() const {
  Window root = None;
  Window parent = None;
  Window* children = nullptr;
  unsigned count = 0;
  if (XQueryTree(asked_->display, asked_->root(), &root, &parent, &children,
                 &count) == 0) {
    return std::nullopt;
  }
  const absl::Cleanup free = [children] { XFree(children); };
  for (unsigned i = 0; i < count; ++i) {
    // GTK gives them a type; the window manager's own windows are outside.
    XWindowAttributes seen;
    if (XGetWindowAttributes(asked_->display, children[i], &seen) != 0 &&
        seen.map_state == IsViewable && seen.x >= 0 && seen.width > 1 &&
        !asked_->Property<Atom>(children[i], "_NET_WM_WINDOW_TYPE").empty()) {
      return Area{seen.x, seen.y, seen.width, seen.height};
    }
  }
  return std::nullopt;
}

}  // namespace examples::testing
