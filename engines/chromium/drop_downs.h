// A page's drop-downs, shown by the host.

#ifndef ENGINES_CHROMIUM_DROP_DOWNS_H_
#define ENGINES_CHROMIUM_DROP_DOWNS_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "engines/chromium/json.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/calling.h"

namespace chromium {

// Asks the host for a choice whenever a select element opens, and tells when
// each drop-down opens and closes. One is open at a time.
//
// Thread: the service thread. Lifetime: the service outlives it.
class DropDowns {
 public:
  // Gives the page the host's choice: an index in the items of the report, or
  // nothing if the list was closed without one.
  using Choose = std::function<void(std::optional<std::uint32_t> index)>;

  DropDowns(BrowserId browser, rpc::BrowserWidgetRpc* service);
  DropDowns(const DropDowns&) = delete;
  DropDowns& operator=(const DropDowns&) = delete;
  ~DropDowns();

  // Whether a host shows lists. If none does, pages draw them.
  bool AreServed() const;

  // Our script has reported that a list is to open.
  void Open(const Json& report, Choose choose);

  // The page, its view or the element is gone.
  void Close();

 private:
  void Finish(std::optional<std::uint32_t> index);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  std::uint64_t last_popup_ = 0;
  std::uint64_t open_ = 0;  // 0: none.
  Choose choose_;
  orvane::CallHandle call_;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// A place in the view that our script has told. Nothing if it could not tell.
std::optional<rpc::RectDip> PlaceOf(const Json& place);

rpc::TextDirection DirectionOf(const std::string& direction);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_DROP_DOWNS_H_
