// Messages of the widget as Java has them: written, read back, compared.

import orvane.rpc.browser.BrowserId;
import orvane.rpc.browser.FocusReason;
import orvane.rpc.browser.FocusRequest;
import orvane.rpc.transport.StreamMessage;

final class FocusTest {
  public static void main(String[] arguments) throws Exception {
    FocusRequest request = FocusRequest.newBuilder()
        .setBrowserId(BrowserId.newBuilder().setValue(9))
        .setReason(FocusReason.FOCUS_REASON_MOUSE)
        .build();
    StreamMessage frame = StreamMessage.newBuilder()
        .setKind(StreamMessage.Kind.KIND_CALL)
        .setStreamId(1)
        .setPayload(request.toByteString())
        .build();
    FocusRequest read = FocusRequest.parseFrom(
        StreamMessage.parseFrom(frame.toByteArray()).getPayload());
    if (!read.equals(request) || read.getBrowserId().getValue() != 9) {
      throw new AssertionError("not what was written:\n" + read);
    }
  }
}
