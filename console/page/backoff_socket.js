// A WebSocket of this page's own server that comes back by itself: after a failure it waits half a
// second, then twice as long each time, up to eight seconds; at once when the network or the user is
// back. Closed while the page is hidden, if so wished: nobody looks, and a phone's battery is small.

const kFirstWait_ms = 500;
const kLongestWait_ms = 8000;
const kSilenceBeforeDead_ms = 6000;
export const kSignInNeeded = 4401;

// handlers: {onMessage(data), onOpen(), onLost(code, wait_ms)}. `sleeps_hidden`: see above.
// `speaks_always`: the other end is never silent for long; a silence counts as a loss.
export function openBackoffSocket(
  path,
  handlers,
  { sleeps_hidden = false, speaks_always = false } = {},
) {
  let socket = null;
  let timer = 0;
  let watchdog = 0;
  let wait_ms = kFirstWait_ms;
  let ended = false;

  const watch = () => {
    clearTimeout(watchdog);
    if (speaks_always) {
      watchdog = setTimeout(() => lose(1006), kSilenceBeforeDead_ms);
    }
  };
  const drop = () => {
    clearTimeout(timer);
    clearTimeout(watchdog);
    const old = socket;
    socket = null;
    old?.close();
  };
  const lose = (code) => {
    drop();
    if (ended || code === kSignInNeeded) {
      handlers.onLost(code, 0);
      return;
    }
    handlers.onLost(code, wait_ms);
    timer = setTimeout(connect, wait_ms * (0.8 + 0.4 * Math.random()));
    wait_ms = Math.min(2 * wait_ms, kLongestWait_ms);
  };
  const connect = () => {
    drop();
    if (sleeps_hidden && document.hidden) {
      return;
    }
    const mine = new WebSocket(new URL(path, location.href.replace(/^http/, "ws")));
    socket = mine;
    mine.binaryType = "arraybuffer";
    mine.onopen = () => {
      watch();
      handlers.onOpen();
    };
    mine.onmessage = (event) => {
      if (mine !== socket) {
        return;
      }
      wait_ms = kFirstWait_ms;
      watch();
      handlers.onMessage(event.data);
    };
    mine.onclose = (event) => {
      if (mine === socket) {
        lose(event.code);
      }
    };
  };
  const connectAtOnce = () => {
    if (!ended && (socket === null || socket.readyState > WebSocket.OPEN)) {
      wait_ms = kFirstWait_ms;
      connect();
    }
  };
  addEventListener("online", connectAtOnce);
  document.addEventListener("visibilitychange", () => {
    if (!document.hidden) {
      connectAtOnce();
    } else if (sleeps_hidden) {
      drop();
    }
  });
  connect();
  return {
    connectAtOnce,
    isOpen: () => socket?.readyState === WebSocket.OPEN,
    // False when there is no connection: nothing was sent.
    send(text) {
      if (socket?.readyState !== WebSocket.OPEN) {
        return false;
      }
      socket.send(text);
      return true;
    },
    end() {
      ended = true;
      drop();
    },
  };
}
