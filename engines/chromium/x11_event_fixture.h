// For tests: the bytes of X11 events, as Xlib lays them out on a 64-bit
// machine.

#ifndef ENGINES_CHROMIUM_X11_EVENT_FIXTURE_H_
#define ENGINES_CHROMIUM_X11_EVENT_FIXTURE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace chromium::testing {

// XEvent, XIDeviceEvent and XIEnterEvent.
inline constexpr std::size_t kCoreBytes = 192;
inline constexpr std::size_t kXiBytes = 200;
inline constexpr std::size_t kXiCrossingBytes = 184;

// Some numbers of events, of the core protocol and of XInput 2.
enum X11Number : std::int32_t {
  kKeyPress = 2,
  kKeyRelease = 3,
  kButtonPress = 4,
  kButtonRelease = 5,
  kMotion = 6,
  kEnter = 7,
  kLeave = 8,
  kTouchBegin = 18,
  kTouchUpdate = 19,
  kTouchEnd = 20,
};

template <typename Value>
void Poke(std::string& bytes, std::size_t offset, Value value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

struct Bytes {
  std::uint32_t detail = 0;
  double x = 0;  // In the core protocol, a whole number.
  double y = 0;
  std::uint32_t state = 0;
  std::uint32_t time = 0;
};

// An XEvent.
inline std::string Core(std::int32_t type, const Bytes& of = {}) {
  std::string bytes(kCoreBytes, '\0');
  Poke(bytes, 0, type);
  Poke(bytes, 56, std::uint64_t{of.time});
  Poke(bytes, 64, static_cast<std::int32_t>(of.x));
  Poke(bytes, 68, static_cast<std::int32_t>(of.y));
  const bool is_crossing = type == kEnter || type == kLeave;
  Poke(bytes, is_crossing ? 96 : 80, of.state);
  if (!is_crossing) Poke(bytes, 84, of.detail);
  return bytes;
}

// An XIDeviceEvent. Of the state, it has the modifiers.
inline std::string Xi(std::int32_t evtype, const Bytes& of = {}) {
  std::string bytes(kXiBytes, '\0');
  Poke(bytes, 0, std::int32_t{35});
  Poke(bytes, 36, evtype);
  Poke(bytes, 40, std::uint64_t{of.time});
  Poke(bytes, 56, of.detail);
  Poke(bytes, 104, of.x);
  Poke(bytes, 112, of.y);
  Poke(bytes, 180, of.state);
  return bytes;
}

// An XIEnterEvent.
inline std::string XiCrossing(std::int32_t evtype, const Bytes& of = {}) {
  std::string bytes = Xi(evtype, of).substr(0, kXiCrossingBytes);
  Poke(bytes, 164, of.state);
  Poke(bytes, 180, std::uint32_t{0});
  return bytes;
}

}  // namespace chromium::testing

#endif  // ENGINES_CHROMIUM_X11_EVENT_FIXTURE_H_
