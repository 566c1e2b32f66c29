/* The worker that all tabs of a browser share: it has the stream, so that ten tabs are one reader to
 * the collector and leave the browser its few connections to a host. */
import { Exchange } from "./stream.js";

const exchange = new Exchange({ fetch: (...given) => fetch(...given) });

self.addEventListener("connect", (event) => {
  const port = event.ports[0];
  const post = (message) => port.postMessage(message);
  port.addEventListener("message", ({ data }) => exchange.hear(port, data, post));
  port.start();
});
