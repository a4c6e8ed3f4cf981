// A plain script that the compiler checks: columns are named in comments. Never run.

var db = new VEXT_SQL("plain");
db.driverName = "QSQLITE";
if (!db.open()) {
    quit(1);
}
/** @type {VextSqlResult<{id: number, note: string}> | false} */
var goods = db.query("SELECT id, note FROM goods");
if (goods) {
    print(goods.id[0].toFixed(), goods.note.join(), goods.rows);
}
/**
 * @param {VextSqlResult<any>} result
 * @param {VextSqlFailure} error
 */
function show(result, error) {
    print(error || result.whatever[0]);
}
db.query_thread(show, "SELECT * FROM goods");
db.query_thread("SELECT * FROM goods", show, { name: "Anna" }, ["for"]);
db.query_thread("SELECT 1", function (result, error) {
    if (error !== false || typeof result === "boolean") {
        return;
    }
    print(result.fields_index[0][0]);
});
