// The order of the virtual operations, which transports and debuggers of other
// builds rely on.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"

namespace rpc {
namespace {

using W = BrowserWidgetRpc;

// The slot that a call through `member` uses, by the layout of pointers to
// members in the Itanium C++ ABI.
template <typename Member>
std::size_t Slot(Member member) {
  struct Layout {
    std::uintptr_t pointer;
    std::ptrdiff_t adjustment;
  };
  const auto layout = std::bit_cast<Layout>(member);
#if defined(__aarch64__) || defined(__arm__)
  EXPECT_EQ(layout.adjustment & 1, 1) << "not virtual";
  return layout.pointer / sizeof(void*);
#else
  EXPECT_EQ(layout.pointer & 1, 1u) << "not virtual";
  return layout.pointer / sizeof(void*);
#endif
}

std::vector<std::size_t> From(std::size_t first, std::size_t count) {
  std::vector<std::size_t> slots;
  for (std::size_t i = 0; i < count; ++i) slots.push_back(first + i);
  return slots;
}

// Two destructors come first, the complete and the deleting one.
TEST(BrowserWidgetSlots, OperationsOfAServiceFollowTheDestructors) {
  EXPECT_THAT((std::vector<std::size_t>{
                  Slot(&W::GetDescriptor), Slot(&W::CallMethod),
                  Slot(&W::GetRequestPrototype), Slot(&W::GetResponsePrototype),
                  Slot(&W::OpenStream)}),
              ::testing::ElementsAreArray(From(2, 5)));
}

TEST(BrowserWidgetSlots, MethodsFollowInTheOrderOfTheirIndices) {
  const std::vector<std::size_t> slots = {
      Slot(&W::Focus),
      Slot(&W::Unfocus),
      Slot(&W::Attach),
      Slot(&W::Detach),
      Slot(&W::AssignHostWindow),
      Slot(&W::Show),
      Slot(&W::Hide),
      Slot(&W::Minimize),
      Slot(&W::Restore),
      Slot(&W::SetDisplay),
      Slot(&W::SetViewBounds),
      Slot(&W::GetChromiumWindowHandle),
      Slot(&W::ForwardKeyPress),
      Slot(&W::ForwardKeyRelease),
      Slot(&W::ForwardKeyType),
      Slot(&W::ForwardMousePress),
      Slot(&W::ForwardMouseRelease),
      Slot(&W::ForwardMouseEnter),
      Slot(&W::ForwardMouseExit),
      Slot(&W::ForwardMouseDrag),
      Slot(&W::ForwardMouseMove),
      Slot(&W::ForwardMouseWheel),
      Slot(&W::ForwardNativeKeyEvent),
      Slot(&W::ForwardNativeMouseEvent),
      Slot(&W::ForwardNativeTouchEvent),
      Slot(&W::GetAccessibilityToken),
      Slot(&W::SetParentAccessibilityNodes),
      Slot(&W::AttachAccessibleWindow),
      Slot(&W::ForwardTouchStart),
      Slot(&W::ForwardTouchMove),
      Slot(&W::ForwardTouchEnd),
      Slot(&W::ForwardTouchCancel),
      Slot(&W::ForwardDragEnter),
      Slot(&W::ForwardDragOver),
      Slot(&W::ForwardDragLeave),
      Slot(&W::ForwardDragDrop),
      Slot(&W::ForwardDragEnd),
      Slot(&W::NotifyParentWindowChanged),
      Slot(&W::SetDpiAware),
      Slot(&W::SetForcedScaleFactor),
      Slot(&W::WhenCursorChanged),
      Slot(&W::WhenTooltipChanged),
      Slot(&W::WhenDropDownCreated),
      Slot(&W::WhenDropDownDeleted),
      Slot(&W::WhenDragCursorUpdated),
      Slot(&W::WhenAriaLiveRegionChanged),
      Slot(&W::OnCreateWebDialog),
      Slot(&W::OnUpdateSurface),
      Slot(&W::OnUpdateLayer),
      Slot(&W::OnShowDropdown),
      Slot(&W::OnTakeFocus),
      Slot(&W::OnAccessibilityRequestFocus),
  };
  EXPECT_THAT(slots, ::testing::ElementsAreArray(From(7, 52)));
}

}  // namespace
}  // namespace rpc
