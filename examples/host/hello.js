// What examples/host runs: one statement that waits, one that does not.
var db = new VEXT_SQL("hello");
db.driverName = "QSQLITE";
db.databaseName = ":memory:";
db.open();
print("at once: " + db.query("select 6 * 7 as answer").answer[0]);
db.query_thread(function (result, error) {
    print(error || "later: " + result.word[0]);
    server.quit();
}, "select 'hello' as word");
