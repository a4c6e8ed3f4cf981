// Values that hold quotes, or anything else, bound to the placeholders of a statement instead of
// written into its text: nothing to escape, and nothing that a value says is ever run. Placeholders
// need Vext's layer of drivers, which vext-run uses unless it is told --stock-drivers. Runs on
// SQLite in memory, or on what the arguments say:
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

function check(result) {
    if (result === false) {
        console.error(db.lastError);
        quit(1);
    }
    return result;
}

if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
if (!db.hasFeature().CancelQuery) {
    console.error("these drivers take no placeholders: run this without --stock-drivers");
    quit(1);
}

var texts = ["plain", "it's", "'); DROP TABLE kept; --", "back\\slash", "quote \" and \\' both",
    "what? :who", "жук", "😀", ""];

db.query("DROP TABLE kept"); // no matter if there is none
check(db.query("CREATE TABLE kept (id INTEGER PRIMARY KEY, note VARCHAR(100))"));
for (var n = 0; n < texts.length; n++) {
    check(db.exec("INSERT INTO kept VALUES (?, ?)", [n, texts[n]]));
}

// A name takes its value wherever it stands; values are given in the order of first appearance.
var found = 0;
for (n = 0; n < texts.length; n++) {
    var rows = check(db.exec("SELECT id, note FROM kept WHERE note = :note AND id = :id", [texts[n], n]));
    if (rows.rows === 1 && rows.fields_index[1][0] === texts[n]) {
        found++;
    } else {
        print("changed: " + texts[n]);
    }
}
print(found + " of " + texts.length + " texts kept and found");

// A wrong number of values is an error that says so; nothing is run.
print("one value too few: " + db.exec("DELETE FROM kept WHERE note = ? OR id = ?", [""]) + ", " +
    db.lastError);
print("rows: " + check(db.query("SELECT COUNT(*) AS n FROM kept")).fields_index[0][0]);

// The same from the worker thread. SQLite's database in memory is another one there, so the
// values come back without a table.
db.exec_thread(function (result, error) {
    if (error) {
        console.error(error);
        quit(1);
    }
    print("from the worker: " + result.fields_index[0][0]);
    db.query("DROP TABLE kept");
    db.close();
}, db.driverName === "QIBASE" ? "SELECT CAST(? AS VARCHAR(20)) FROM rdb$database"
                              : "SELECT CAST(? AS CHAR(4))", ["it's"]);
