// A real Sendspin client (@sendspin/sendspin-js) against our server: it must get
// "stream/start" for pcm, synchronise its clock and receive about 100 chunks a
// second. Prints one line and exits 0 on success, 1 on failure.
import WebSocket from "ws";

globalThis.WebSocket = WebSocket;
const { SendspinCore } = await import("@sendspin/sendspin-js");

const port = process.argv[2];
const seconds = Number(process.argv[3] ?? 4);
const core = new SendspinCore({
    baseUrl: `http://127.0.0.1:${port}`,
    codecs: ["pcm"],
    clientName: "real-client-check",
});
let chunks = 0;
let format = null;
core.onAudioData = () => chunks++;
core.onStreamStart = (f) => (format = f);
await core.connect();
setTimeout(() => {
    const sync = core.timeSyncInfo;
    const ok = format?.codec === "pcm" && sync.synced && chunks >= seconds * 80;
    console.log(`sendspin-js: format ${JSON.stringify(format)}, synced ${sync.synced}, ` +
                `chunks ${chunks} in ${seconds} s: ${ok ? "ok" : "FAILED"}`);
    core.disconnect("user_request");
    setTimeout(() => process.exit(ok ? 0 : 1), 200);
}, seconds * 1000);
