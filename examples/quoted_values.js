// Values in statements where `exec` cannot bind them: it writes EXECUTE PROCEDURE before everything
// except on PostgreSQL. Runs on SQLite in memory, or on what the arguments say:
//
//   ./run examples/quoted_values.js driverName=QMYSQL hostName=127.0.0.1 userName=me ...

var db = new VEXT_SQL("quoted");
db.driverName = "QSQLITE";
db.databaseName = ":memory:";
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("=");
    var name = arguments[i].slice(0, at), value = arguments[i].slice(at + 1);
    db[name] = name === "port" ? Number(value) : value;
}

// A value as SQL text. MariaDB and MySQL read backslashes in texts, the others do not.
function quoted(value) {
    if (value === null || value === undefined) {
        return "NULL";
    }
    if (typeof value === "number") {
        if (!isFinite(value)) {
            throw new TypeError("no SQL number: " + value);
        }
        return String(value);
    }
    if (typeof value === "boolean") {
        return value ? "1" : "0";
    }
    if (value instanceof Date) {
        return "'" + value.toISOString().replace("T", " ").replace("Z", "") + "'"; // in UTC
    }
    var text = String(value).replace(/'/g, "''");
    return "'" + (db.driverName === "QMYSQL" ? text.replace(/\\/g, "\\\\") : text) + "'";
}

if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
var texts = ["plain", "it's", "'); DROP TABLE kept; --", "back\\slash", "quote \" and \\' both", "жук", ""];
db.query("DROP TABLE IF EXISTS kept");
db.query("CREATE TABLE kept (id INTEGER PRIMARY KEY, note VARCHAR(100))");
for (var n = 0; n < texts.length; n++) {
    if (db.query("INSERT INTO kept VALUES (" + quoted(n) + ", " + quoted(texts[n]) + ")") === false) {
        console.error(db.lastError);
        quit(1);
    }
}
var notes = db.query("SELECT note FROM kept ORDER BY id").note;
var changed = 0;
for (n = 0; n < texts.length; n++) {
    if (notes[n] !== texts[n]) {
        changed++;
        print("changed: " + texts[n] + " into " + notes[n]);
    }
}
print(texts.length - changed + " of " + texts.length + " texts kept");
db.query("DROP TABLE kept");
db.close();
