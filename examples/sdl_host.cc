// A browser in a window of SDL 2: picture, mouse, wheel, keyboard and cursor.
// It waits for a widget, and comes back with the next one.
//
//   sdl_host [SOCKET]

#include <SDL.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "host/key.h"
#include "host/pixels.h"
#include "host/pointer.h"
#include "host/view.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/main_loops/sdl_events.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

using orvane::host::ViewState;

struct Destroy {
  void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
  void operator()(SDL_Renderer* it) const { SDL_DestroyRenderer(it); }
  void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
  void operator()(SDL_Cursor* cursor) const { SDL_FreeCursor(cursor); }
};
template <typename T>
using Owned = std::unique_ptr<T, Destroy>;

// The most similar cursors, in the order of CursorType.
constexpr SDL_SystemCursor kMostSimilar[] = {
    SDL_SYSTEM_CURSOR_ARROW,     SDL_SYSTEM_CURSOR_ARROW,
    SDL_SYSTEM_CURSOR_ARROW,     SDL_SYSTEM_CURSOR_ARROW,
    SDL_SYSTEM_CURSOR_ARROW,     SDL_SYSTEM_CURSOR_ARROW,
    SDL_SYSTEM_CURSOR_HAND,      SDL_SYSTEM_CURSOR_WAITARROW,
    SDL_SYSTEM_CURSOR_WAIT,      SDL_SYSTEM_CURSOR_CROSSHAIR,
    SDL_SYSTEM_CURSOR_CROSSHAIR, SDL_SYSTEM_CURSOR_IBEAM,
    SDL_SYSTEM_CURSOR_IBEAM,     SDL_SYSTEM_CURSOR_ARROW,
    SDL_SYSTEM_CURSOR_ARROW,     SDL_SYSTEM_CURSOR_SIZEALL,
    SDL_SYSTEM_CURSOR_NO,        SDL_SYSTEM_CURSOR_NO,
    SDL_SYSTEM_CURSOR_HAND,      SDL_SYSTEM_CURSOR_HAND,
    SDL_SYSTEM_CURSOR_SIZEWE,    SDL_SYSTEM_CURSOR_SIZENS,
    SDL_SYSTEM_CURSOR_SIZENESW,  SDL_SYSTEM_CURSOR_SIZENWSE,
    SDL_SYSTEM_CURSOR_SIZENS,    SDL_SYSTEM_CURSOR_SIZENWSE,
    SDL_SYSTEM_CURSOR_SIZENESW,  SDL_SYSTEM_CURSOR_SIZEWE,
    SDL_SYSTEM_CURSOR_SIZEWE,    SDL_SYSTEM_CURSOR_SIZENS,
    SDL_SYSTEM_CURSOR_SIZENESW,  SDL_SYSTEM_CURSOR_SIZENWSE,
    SDL_SYSTEM_CURSOR_SIZEWE,    SDL_SYSTEM_CURSOR_SIZENS,
    SDL_SYSTEM_CURSOR_SIZEALL};

rpc::InputInfo InputUnder(int modifiers) {
  rpc::InputInfo input;
  input.set_modifiers(
      orvane::host::ModifiersOfSdlState(static_cast<Uint32>(modifiers)));
  return input;
}

rpc::MouseButton ButtonOf(const SDL_Event& event) {
  return static_cast<rpc::MouseButton>(event.button.button);
}

orvane::host::KeySample SampleOf(const SDL_KeyboardEvent& event) {
  orvane::host::KeySample key;
  key.input = InputUnder(event.keysym.mod);
  key.native_key_code =
      orvane::host::NativeKeyCodeOfUsage(event.keysym.scancode);
  key.unshifted_character = static_cast<char32_t>(event.keysym.sym);
  key.is_auto_repeat = event.repeat != 0;
  return key;
}

// The text of the press that was just taken from the queue, if it has any: SDL
// puts it right behind the press.
std::string TakeTextOfPress() {
  SDL_Event next;
  if (SDL_PeepEvents(&next, 1, SDL_PEEKEVENT, SDL_KEYDOWN, SDL_TEXTINPUT) < 1 ||
      next.type != SDL_TEXTINPUT) {
    return "";
  }
  SDL_PeepEvents(&next, 1, SDL_GETEVENT, SDL_TEXTINPUT, SDL_TEXTINPUT);
  return next.text.text;
}

// A picture of the widget's: the page, or a list that has opened from it.
struct Sheet {
  absl::Status Update(SDL_Renderer* renderer, const rpc::PixelFrame& frame) {
    if (absl::Status copied = picture.Update(frame); !copied.ok())
      return copied;
    const rpc::RectPx damage = orvane::host::DamageOf(frame);
    SDL_Rect changed = {damage.x(), damage.y(), damage.width(),
                        damage.height()};
    const SDL_Point size = {picture.width(), picture.height()};
    SDL_Point old_size = {0, 0};
    SDL_QueryTexture(texture.get(), nullptr, nullptr, &old_size.x, &old_size.y);
    if (size.x != old_size.x || size.y != old_size.y) {
      texture.reset(SDL_CreateTexture(renderer, SDL_PIXELFORMAT_BGRA32,
                                      SDL_TEXTUREACCESS_STREAMING, size.x,
                                      size.y));
      if (texture == nullptr) return absl::InternalError(SDL_GetError());
      SDL_SetTextureBlendMode(texture.get(), SDL_BLENDMODE_NONE);
      changed = {0, 0, size.x, size.y};
    }
    const int first = changed.y * picture.stride_bytes() + changed.x * 4;
    SDL_UpdateTexture(texture.get(), &changed, picture.pixels().data() + first,
                      picture.stride_bytes());
    return absl::OkStatus();
  }

  orvane::host::Picture picture;
  Owned<SDL_Texture> texture;
};

class BrowserWindow {
 public:
  BrowserWindow(orvane::EventLoop* loop, const std::string& socket,
                BrowserId browser)
      : browser_(std::move(browser)),
        window_(SDL_CreateWindow(
            "", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, 800, 600,
            SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI)),
        renderer_(SDL_CreateRenderer(window_.get(), -1, 0)),
        view_(loop,
              {.connect = orvane::host::ConnectorTo(loop, socket),
               .browser = browser_},
              {.on_connected = [this](auto& widget) { OpenStreams(widget); },
               .on_state = [this](ViewState) { ShowState(); },
               .on_cursor =
                   [this](const rpc::Cursor& cursor) { ShowCursor(cursor); }}) {
    ShowState();
  }

  ~BrowserWindow() { view_.Detach(); }

  bool is_open() const { return renderer_ != nullptr; }

  void Handle(const SDL_Event& event) {
    orvane::host::Pointer* const pointer = view_.pointer();
    orvane::host::Keyboard* const keyboard = view_.keyboard();
    switch (event.type) {
      case SDL_WINDOWEVENT:
        FollowWindow();
        if (event.window.event == SDL_WINDOWEVENT_LEAVE && pointer)
          pointer->Leave(mouse_);
        break;
      case SDL_MOUSEMOTION:
        SetMouse(event.motion.x, event.motion.y, event.motion.state);
        if (pointer) pointer->Move(mouse_);
        break;
      case SDL_MOUSEBUTTONDOWN:
        SetMouse(event.button.x, event.button.y,
                 held_ | SDL_BUTTON(event.button.button));
        view_.TakeOver();  // Nothing, unless the widget has refused.
        if (pointer)
          pointer->Press(mouse_, ButtonOf(event), event.button.clicks);
        break;
      case SDL_MOUSEBUTTONUP:
        SetMouse(event.button.x, event.button.y,
                 held_ & ~SDL_BUTTON(event.button.button));
        if (pointer) pointer->Release(mouse_, ButtonOf(event));
        break;
      case SDL_MOUSEWHEEL:
        SetMouse(event.wheel.mouseX, event.wheel.mouseY, held_);
        if (pointer)
          pointer->TurnWheel(mouse_, static_cast<double>(event.wheel.preciseX),
                             -static_cast<double>(event.wheel.preciseY));
        break;
      case SDL_KEYDOWN:
        if (keyboard) keyboard->Press(SampleOf(event.key), TakeTextOfPress());
        break;
      case SDL_KEYUP:
        if (keyboard) keyboard->Release(SampleOf(event.key));
        break;
      case SDL_TEXTINPUT:  // Of an input method.
        if (keyboard)
          keyboard->Commit(InputUnder(SDL_GetModState()), event.text.text);
        break;
      default:
        break;
    }
  }

 private:
  // Again for each widget.
  void OpenStreams(rpc::BrowserWidgetRpcClient& widget) {
    surfaces_ = widget.OnUpdateSurface(
        browser_, [this](const rpc::UpdateSurfaceCall& call,
                         orvane::Responder<rpc::UpdateSurface> responder) {
          Sheet& sheet = call.has_popup() ? list_ : page_;
          const absl::Status shown =
              sheet.Update(renderer_.get(), call.frame());
          if (!shown.ok())
            std::cerr << orvane::Printable(shown.message()) << std::endl;
          rpc::UpdateSurfaceResponse answer;
          *answer.mutable_receipt() =
              orvane::host::ReceiptFor(call.frame(), shown);
          std::move(responder).Respond(answer).IgnoreError();
          if (call.has_popup()) list_place_ = call.popup().bounds();
          Draw();
        });
    closed_lists_ = widget.WhenDropDownDeleted(
        browser_, [this](const rpc::DropDownDeleted&) {
          list_ = Sheet();
          Draw();
        });
  }

  void ShowState() {
    std::string title = "Browser";
    if (view_.state() != ViewState::kAttached) {
      absl::StrAppend(&title, ": ",
                      view_.status().ok()
                          ? "waiting for the widget"
                          : orvane::Printable(view_.status().message()));
    }
    if (view_.state() == ViewState::kRefused) title += " (click to take over)";
    SDL_SetWindowTitle(window_.get(), title.c_str());
    list_ = Sheet();
    Draw();
  }

  void ShowCursor(const rpc::Cursor& cursor) {
    SDL_ShowCursor(cursor.type() == rpc::CURSOR_TYPE_NONE ? SDL_DISABLE
                                                          : SDL_ENABLE);
    // A newer widget may know more of them.
    const auto index = static_cast<std::size_t>(cursor.type());
    cursor_.reset(SDL_CreateSystemCursor(index < std::size(kMostSimilar)
                                             ? kMostSimilar[index]
                                             : SDL_SYSTEM_CURSOR_ARROW));
    SDL_SetCursor(cursor_.get());
  }

  void Draw() {
    SDL_RenderClear(renderer_.get());
    DrawSheet(page_, 0, 0);
    DrawSheet(list_, list_place_.x(), list_place_.y());
    SDL_RenderPresent(renderer_.get());
  }

  void DrawSheet(const Sheet& sheet, double left_dip, double top_dip) {
    // A widget may say anything. NaN is not near either.
    const bool is_near = std::abs(left_dip) < 1e5 && std::abs(top_dip) < 1e5;
    if (!is_near) return;
    const double zoom = pixels_per_dip_ / sheet.picture.scale_factor();
    const SDL_FRect place = {static_cast<float>(left_dip * pixels_per_dip_),
                             static_cast<float>(top_dip * pixels_per_dip_),
                             static_cast<float>(sheet.picture.width() * zoom),
                             static_cast<float>(sheet.picture.height() * zoom)};
    const Uint8 light = view_.state() == ViewState::kAttached ? 255 : 96;
    SDL_SetTextureColorMod(sheet.texture.get(), light, light, light);
    SDL_RenderCopyF(renderer_.get(), sheet.texture.get(), nullptr, &place);
  }

  // Tells what SDL knows of the window; the view sends what has changed.
  void FollowWindow() {
    SDL_Point dips = {1, 1};
    SDL_Point pixels = {1, 1};
    SDL_GetWindowSize(window_.get(), &dips.x, &dips.y);
    SDL_GetRendererOutputSize(renderer_.get(), &pixels.x, &pixels.y);
    pixels_per_dip_ = 1.0 * pixels.x / dips.x;
    SDL_Rect display = {};
    SDL_GetDisplayBounds(SDL_GetWindowDisplayIndex(window_.get()), &display);
    view_.SetDisplay(
        orvane::host::NewDisplay(display.w, display.h, pixels_per_dip_));
    view_.SetSize(dips.x, dips.y);
    const Uint32 flags = SDL_GetWindowFlags(window_.get());
    view_.SetShown((flags & SDL_WINDOW_SHOWN) != 0);
    view_.SetMinimized((flags & SDL_WINDOW_MINIMIZED) != 0);
    if ((flags & SDL_WINDOW_INPUT_FOCUS) != 0)
      view_.Focus(rpc::FOCUS_REASON_WINDOW);
    else
      view_.Unfocus();
    Draw();
  }

  void SetMouse(int x, int y, Uint32 held) {
    mouse_.input = InputUnder(SDL_GetModState());
    mouse_.pointer.mutable_position()->set_x(x);
    mouse_.pointer.mutable_position()->set_y(y);
    held_ = held;
    // SDL has the middle button before the right one, pages have it behind.
    mouse_.pointer.set_buttons((held & ~6U) | (held & 2) << 1 |
                               (held & 4) >> 1);
  }

  const BrowserId browser_;
  const Owned<SDL_Window> window_;
  const Owned<SDL_Renderer> renderer_;
  double pixels_per_dip_ = 1;
  Owned<SDL_Cursor> cursor_;
  Sheet page_;
  Sheet list_;
  rpc::RectDip list_place_;
  orvane::host::PointerSample mouse_;  // As it was told last.
  Uint32 held_ = 0;                    // Its buttons, as SDL numbers them.
  std::unique_ptr<orvane::ClientStream> surfaces_;
  std::unique_ptr<orvane::ClientStream> closed_lists_;
  orvane::host::View view_;
};

// False if there is no window.
bool Run(const std::string& socket) {
  orvane::EventLoop loop;
  orvane::SdlEvents work(&loop);
  BrowserId browser;
  browser.set_value(1);
  BrowserWindow window(&loop, socket, std::move(browser));
  if (!window.is_open()) return false;
  SDL_Event event;
  while (SDL_WaitEvent(&event) == 1 && event.type != SDL_QUIT) {
    if (!work.Handle(event)) window.Handle(event);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view argument = argc > 1 ? argv[1] : "";
  if (argument == "--version") {
    std::cout << "sdl_host " << orvane::kVersion << "\n";
    return 0;
  }
  if (argc > 2 || argument.starts_with('-')) {
    const bool is_asked = argument == "--help";
    (is_asked ? std::cout : std::cerr)
        << "Usage: sdl_host [--help | --version | SOCKET]\n"
           "Shows browser 1 of the widget that listens at SOCKET in a window\n"
           "(default "
        << orvane::DefaultSocketPath("widget")
        << ").\n"
           "\n"
           "Exit code: 0 after the window was closed, 1 without a display,\n"
           "2 for wrong usage.\n";
    return is_asked ? 0 : 2;
  }

  // SDL is made for games: it would keep the screen on, switch off the
  // desktop's effects, and swallow the click that gives the window the focus.
  SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "1");
  SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
  SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
  const bool has_run =
      SDL_Init(SDL_INIT_VIDEO) == 0 &&
      Run(argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget"));
  if (!has_run) std::cerr << "sdl_host: " << SDL_GetError() << std::endl;
  SDL_Quit();
  return has_run ? 0 : 1;
}
