// What a script may write with the types: the compiler has nothing to say about it. Never run.

var db = new VEXT_SQL("orders");
var other = VEXT_SQL();
db.connectionName = "a";
db.port = 5432;
if (!db.open()) {
    console.error(db.lastError, db.lastErrors.typeStr);
    quit(1);
}

// Results: the columns are those that the script names.
var goods = db.query<{ id: number; note: string | null }>("SELECT id, note FROM goods");
if (goods) {
    print(goods.id[0].toFixed(), goods.rows, goods.length, goods.fields_index[0][0]);
}
var call = db.exec<{ sum: number }>("add_up", [1, 2]);
var sum: number = call ? call.sum[0] : 0;
var anything = db.query<any>("SELECT * FROM goods");
if (anything) {
    print(anything.whatever[0]);
    var rows: number = anything.rows;
}
if (db.tables(255) && db.queryResult && db.queryResult.TABLES) {
    print(db.queryResult.TABLES.length);
}

// query_thread: the usual orders, and others.
var clerk = { name: "Anna" };
function receive(this: { name: string }, result: VextSqlResult<{ n: number }>,
    error: VextSqlFailure, milliseconds: number, word: string) {
    print(word, this.name, error || result.n[0].toFixed());
}
db.query_thread("SELECT 1");
db.query_thread("SELECT 1", ["for query_finish"]);
db.query_thread(receive, "SELECT 1", ["for"]);
db.query_thread("SELECT 1", receive, ["for"]);
db.query_thread(clerk, receive, "SELECT 1", ["for"]);
db.query_thread("SELECT 1", receive, clerk, ["for"]);
db.query_thread("SELECT 1", ["for"], receive, clerk);
db.query_thread(receive, clerk, "SELECT 1");
db.query_thread("SELECT 1", function (result, error, milliseconds, word) {
    if (error !== false || typeof result === "boolean") {
        return;
    }
    print(result.rows, milliseconds.toFixed(), word);
}, clerk, ["and"]);
db.query_thread(["SELECT 1", "SELECT 2"], function (results, errors) {
    if (typeof results !== "boolean" && errors !== false) {
        print(results[0].rows, errors[1] === undefined);
    }
});
db.query_thread(clerk, function () {}, ["SELECT 1"], [1, 2]);

db.exec_thread("add_up");
db.exec_thread("add_up", [1, 2]);
db.exec_thread("add_up", [1, 2], receive, clerk, ["for"]);
db.exec_thread(receive, "INSERT INTO goods VALUES", [7, "nut"]);
db.exec_thread(clerk, receive, "add_up", [1, 2], ["for"]);
db.exec_thread("add_up", receive, clerk, [1, 2], ["for"]);
db.exec_thread(["add_up", "forget"], [[1, 2], ["all"]]);
db.exec_thread(function (results) { print(results); }, ["add_up"], [[1]], ["for"]);

// Signals.
db.opened.connect(db.close);
db.closed.connect(clerk, "name");
db.event.connect(function (name, payload, source) { print(name, payload, source.toFixed()); });
db.query_finish.connect(function (first, second, third, last) {
    if (last === true) {
        print("fine after " + third.toFixed());
    } else {
        var failed: false = first;
        print(failed, third, last.toFixed());
    }
});
db.query_finish.connect(function (result: VextSqlResult, error: VextSqlFailure) {
    print(result.rows, error);
});
db.destroyed.connect(function () { print("gone"); });
db.deleteLater();

// Statistics and what all scripts share.
print(db.counters().cnt_open, db.counters(scriptEngine).postName, counters().length);
print(db.countersAll()[0].driver, db.hasFeature().Transactions);
tag = { day: 5 };
db.tag = tag.day;

// The globals of vext-run.
print(arguments.length, arguments[0].charAt(0));
(function (..._: any[]) { print(arguments.callee); })();
console.log(1, "two", [3]);
console.info();
console.warn("slowly");
if (goods) {
    console.table(goods);
}
var timer = setTimeout(function (text: string) { print(text); }, 10, "later");
clearTimeout(timer);
clearInterval(setInterval(function () {}, 1000));
print(server.gui, server.objectName, server.tcpPorts.length, server.isGuiApp());
print(post.getPostDir(), scriptEngine.file.name, scriptEngine.file.dir);
gc();
function choose(): number {
    quit(3); // what is behind it is never reached, so there is nothing to return
}
