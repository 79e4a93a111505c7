// A HomeKit accessory server with a known setup code, on loopback only and
// never advertised: the real peer the AirPlay tool's pairing is tested against.
//   node accessory.js SETUP_CODE STORAGE_DIR
// Prints "listening PORT" once it accepts connections, then "paired ID" and
// "accessories ID" as a controller pairs and, over the encrypted session,
// asks for the accessory list.
"use strict";
const { HAPServer, AccessoryInfo, HAPStorage } = require("hap-nodejs");

const [setupCode, storage] = process.argv.slice(2);
HAPStorage.setCustomStoragePath(storage);

const info = AccessoryInfo.create("1A:2B:3C:4D:5E:6F");
info.displayName = "Vellatone test accessory";
info.pincode = setupCode;

const server = new HAPServer(info);
server.on("listening", (port) => console.log(`listening ${port}`));
server.on("pair", (username, publicKey, callback) => {
    info.addPairedClient(username, publicKey, 1);
    console.log(`paired ${username}`);
    callback();
});
server.on("accessories", (connection, callback) => {
    console.log(`accessories ${connection.username}`);
    callback(undefined, { accessories: [{ aid: 1, services: [] }] });
});
server.listen(0, "127.0.0.1");
process.on("SIGTERM", () => {
    server.destroy();
    process.exit(0);
});
