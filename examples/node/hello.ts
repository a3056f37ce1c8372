// examples/node/hello.ts: a complete program that calls a method, watches events
// and answers the widget.

import { connect } from 'orvane';
import { BrowserWidgetRpc } from 'orvane/rpc/browser/browser_widget_pb.js';
import { CursorType } from 'orvane/rpc/browser/cursor_pb.js';
import { RenderingMode } from 'orvane/rpc/browser/window_pb.js';

const browserId = { value: 2n };
const connection = await connect(process.argv[2]);
const widget = connection.client(BrowserWidgetRpc);

const cursors = widget.whenCursorChanged(browserId);
const focus = widget.onTakeFocus(browserId, () => ({ taken: true }));
await widget.attach(
  { browserId, renderingMode: RenderingMode.OFF_SCREEN, bounds: { width: 320, height: 200 } },
  { timeoutMs: 5000 },
);
await widget.show(browserId);
console.log('browser 2 is shown');

await widget.forwardMouseEnter({ browserId, pointer: { position: { x: 160, y: 26 } } });
for await (const event of cursors) {
  const isLink = event.cursor?.type === CursorType.POINTER;
  console.log('the pointer is over', isLink ? 'a link' : 'something else');
  break;
}
focus.close();
await connection.close();
