// Mistakes. The compiler must refuse each line that ends in a number, with that number, and no other.

var db = new VEXT_SQL("orders");
var plain = db.query("SELECT 1 AS n");
var told = db.query<{ n: number }>("SELECT 1 AS n");
print(plain.rows); // TS2339: false after a failure
if (plain && told) {
    print(plain.row); // TS2551
    print(plain.n[0]); // TS2339: nobody named the column
    print(told.row); // TS2551
    print(told.m[0]); // TS2339
    print(told.n[0].charAt(0)); // TS2339: a number
    for (var i = 0; i < told.lenght; ++i) {} // TS2551
}
db.query_thread("SELECT 1", function (result) {
    print(result.rows); // TS2339: false when the task was never run
    if (typeof result !== "boolean") {
        print(result.row); // TS2551
    }
});
db.query_thread(["SELECT 1"], function (results) {
    if (typeof results !== "boolean") {
        print(results[0].row); // TS2551
    }
});
db.query_finish.connect(function (result: VextSqlResult) {
    print(result.row); // TS2551
});
print(db.queryResult.rows); // TS18048: there may be none

db.drivername = "QPSQL"; // TS2551
db.port = "5432"; // TS2322
db.isOpen = true; // TS2540
db.affectedRows = 0; // TS2540
db.query(); // TS2554
db.query(1); // TS2345
db.query_thread(); // TS2554
db.query_thread(db); // TS2769
db.query_thread(function () {}); // TS2769
db.exec_thread(["add_up"], [1]); // TS2769
db.exec_thread(["add_up"]); // TS2345
db.opened.connect("close"); // TS2345
db.deletelater(); // TS2551
new VEXT_SQL(5); // TS2345
VEXT_SQL.open(); // TS2339

quit("1"); // TS2345
setTimeout("print(1)", 10); // TS2345
server = null; // TS2588
print(server.deleteLater); // TS2339
consol.log(1); // TS2552
print(arguments.first); // TS2339
window.alert("no browser"); // TS2304
Promise.resolve(1); // TS2585

// What the engine does not know.
class Late {
    get value() { return 1; } // TS1056
}
async function later(): Promise<void> {} // TS2705
new Map(); // TS2583
for (var letter of "text") {} // TS2494
