# The service of ../transport/peer.proto in Cap'n Proto.
@0xd3f1c2a78b5e4906;

struct Point {
  x @0 :Float64;
  y @1 :Float64;
}

struct MouseMove {
  browser @0 :UInt64;
  timeNs @1 :Int64;
  position @2 :Point;
  screenPosition @3 :Point;
}

interface Host {
  cursorChanged @0 (browser :UInt64, type :UInt16) -> stream;
  takeFocus @1 (browser :UInt64, direction :UInt16) -> (taken :Bool);
}

interface Peer {
  echo @0 (data :Data) -> (data :Data);
  upload @1 (data :Data) -> ();
  forwardMouseMove @2 (move :MouseMove) -> ();

  # From now on the server knows the host,
  connect @3 (host :Host) -> ();
  # publishes a burst of events to every host when asked,
  askBurst @4 () -> ();
  # or calls the host, one call after the other.
  beginCalling @5 () -> ();
}
