// Keeps listening to PostgreSQL notifications while the server restarts or the network breaks.
//
//   ./run examples/listen_reconnect.js channel=news hostName=127.0.0.1 userName=me ...
//
// Ends on the notification "stop". Further arguments: channel=news, every=1000 (ms between looks),
// ping=30000 (ms between pings).

var settings = { channel: "news", every: 1000, ping: 30000 };
var db = new VEXT_SQL("listener");
db.driverName = "QPSQL";
db.app_name = "listener";
// An attempt to connect must not hang for minutes, and a dead line has to be found.
db.connectOptions = "connect_timeout=5;keepalives_idle=30;keepalives_interval=10;keepalives_count=3";
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("=");
    var name = arguments[i].slice(0, at), value = arguments[i].slice(at + 1);
    if (name in settings) {
        settings[name] = value;
    } else {
        db[name] = name === "port" ? Number(value) : value;
    }
}

var wasOpen = false;
var lastPing = Date.now();

db.event.connect(function (name, payload) {
    print("heard on " + name + ": " + payload);
    if (payload === "stop") {
        clearInterval(watch);
        setTimeout(function () { // not inside the connection's own signal
            db.close();
        }, 0);
    }
});
// Before the first open: the connection object remembers it and subscribes at every open().
db.add_event(settings.channel);

function openAgain() {
    if (!db.open()) {
        return; // the next look tries again
    }
    print(wasOpen ? "listening again" : "listening");
    wasOpen = true;
    lastPing = Date.now();
    catchUp();
}

// Notifications sent while nobody listened are gone: what they were about has to be looked up.
function catchUp() {
    var result = db.query("SELECT current_timestamp::text AS now");
    if (result !== false) {
        print("looked for what was missed");
    }
}

function look() {
    // Qt's driver watches the socket of a connection that listens: a server that goes down, or a
    // connection that is reset, turns isOpen false without a statement. A line that is merely
    // silent shows only when something is sent.
    if (db.isOpen && Date.now() - lastPing >= Number(settings.ping)) {
        lastPing = Date.now();
        db.query("SELECT 1");
    }
    if (!db.isOpen) {
        if (wasOpen) {
            print("connection lost");
        }
        openAgain();
    }
}

var watch = setInterval(look, Number(settings.every));
look();
