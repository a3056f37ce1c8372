// Includes our headers after those of toolkits, whose macros have everyday
// names.

#include <QObject>
#include <QString>

#include <X11/Xlib.h>
#include <glib.h>

#include "zimbrel/src/core/common/rpc/main_loops/xlib_names.h"

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"
#include "zimbrel/src/core/common/rpc/main_loops/qt_notifier.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace {

TEST(ForeignMacros, DoNotBreakHeadersThatComeAfterThem) {
#ifndef signals
  FAIL() << "Qt's keywords are off, so this shows nothing";
#endif
}

TEST(XlibNames, MeanWhatXlibMeansByThem) {
  EXPECT_EQ(None, 0L);
  EXPECT_EQ(Success, 0);
  EXPECT_EQ(Always, 2);
  EXPECT_TRUE(True);
  EXPECT_FALSE(False);
  Status (*const sync)(Display*, Bool) = &XSync;
  EXPECT_NE(sync, nullptr);
}

}  // namespace
