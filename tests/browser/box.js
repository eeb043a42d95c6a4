// A box on the bench: simulated camera, daemon, share and console as processes of their own, in the
// namespaces that scripts/lib/browser.sh made. The daemon is started again when it ends, as its
// service would.
import { spawn } from "node:child_process";
import { createWriteStream, mkdirSync } from "node:fs";
import { join } from "node:path";

const root = new URL("../../", import.meta.url).pathname;
const bin = process.env.KESTRELBRIDGE_BIN ?? join(root, "build/bin");
export const output = process.env.KESTRELBRIDGE_BROWSER_OUTPUT ?? join(root, "browser-output");
export const testPattern = join(root, "tools/clips/test-pattern-720p30.h264");
export const kLocal = "127.0.0.1:8080"; // a secure context
export const kOutside = "10.88.0.1:8080"; // the box's address: none
const kRespawn_ms = 300;

mkdirSync(output, { recursive: true });
const children = new Set();
process.on("exit", () => children.forEach((child) => child.kill("SIGKILL")));

export async function until(condition, what, seconds = 15) {
  const deadline = Date.now() + seconds * 1000;
  for (;;) {
    const value = await condition();
    if (value) {
      return value;
    }
    if (Date.now() > deadline) {
      throw new Error(`not within ${seconds} s: ${what}`);
    }
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

// `inside`: the command that runs it, elsewhere.
function start(name, program, args, inside = []) {
  const log = createWriteStream(join(output, `${name}.log`), { flags: "a" });
  const [first, ...others] = [...inside, join(bin, program), ...args];
  const child = spawn(first, others, { stdio: ["ignore", "pipe", "pipe"] });
  child.stdout.pipe(log);
  child.stderr.pipe(log);
  children.add(child);
  child.ended = new Promise((resolve) => child.on("exit", resolve)).then(() =>
    children.delete(child),
  );
  return child;
}

async function stop(child, signal = "SIGTERM") {
  child?.kill("SIGCONT");
  child?.kill(signal);
  await child?.ended;
}

function keepRunning(name, program, args) {
  let wanted = true;
  let child = null;
  const run = async () => {
    while (wanted) {
      child = start(name, program, args);
      await child.ended;
      await new Promise((resolve) => setTimeout(resolve, kRespawn_ms));
    }
  };
  run();
  return {
    signal: (signal) => child.kill(signal),
    async stop() {
      wanted = false;
      await stop(child);
    },
  };
}

const answers = async (address) =>
  fetch(`http://${address}/session`).then(
    () => true,
    () => false,
  );

// Each part can be stopped and started alone: box.camera.start(clip), box.daemon.stop() ...
export function createBox() {
  const parts = {};
  const part = (name, begin) => ({
    async start(...args) {
      await this.stop();
      parts[name] = begin(...args);
    },
    async stop() {
      const old = parts[name];
      delete parts[name];
      await (old?.stop ? old.stop() : stop(old));
    },
    signal: (signal) => (parts[name].signal ?? parts[name].kill).call(parts[name], signal),
  });
  const box = {
    camera: part("camera", (clip = testPattern, ...options) =>
      start(
        "camera",
        "kestrelctl",
        [
          "camera",
          "--listen",
          "192.168.2.1:9004",
          "--loop",
          "--fps",
          "30",
          "--clip",
          clip,
          ...options,
        ],
        ["ip", "netns", "exec", "camera"],
      ),
    ),
    daemon: part("daemon", () =>
      keepRunning("daemon", "kestrelbridge", ["--dst-port=5001", "--low-latency"]),
    ),
    share: part("share", () => start("share", "kestrelshare", ["--group", ""])),
    console: part("console", (...options) => start("console", "kestrelconsole", options)),
    async startConsole(address, ...options) {
      await box.console.start("--listen", address, ...options);
      await until(() => answers(address), `the console answers at ${address}`);
    },
    async start(address, ...options) {
      await box.camera.start();
      await box.daemon.start();
      await box.share.start();
      await box.startConsole(address, ...options);
    },
    async stop() {
      for (const name of ["console", "share", "daemon", "camera"]) {
        await box[name].stop();
      }
    },
  };
  return box;
}
