// What a script may write with the library's types: the compiler has nothing to say about it. Never
// run.

var shop = new VEXT_SQL("shop");
var goods = shop.query<{ id: number; name: string }>("SELECT id, name FROM goods");
vext.each<{ id: number }>(goods, function (row, index) {
    return row.id.toFixed().length + index < 5;
});
var names: string[] = vext.rows<{ name: string }>(goods, true).map(function (row) { return row.name; });
var first = vext.one(goods);
print(first ? first.id : "none", names.length, vext.filled(shop, "SELECT ?", [1]));

var pool = vext.pool({ driverName: "QPSQL", hostName: "127.0.0.1", size: 4, init: ["SET search_path = shop"] });
pool.query<{ N: number }>("SELECT count(*) AS n FROM goods", function (error, result) {
    print(error ? error.kind + error.code : result.N[0].toFixed(), pool.stats().idle);
});
pool.query("UPDATE goods SET price = ? WHERE id = ?", [5, 7]);
pool.close(function () { print("closed"); });

vext.transaction<number>(pool, function (tx, finish) {
    tx.query<{ ID: number }>("INSERT INTO goods (name) VALUES (?) RETURNING id", ["bolt"], function (error, result) {
        finish(error, result.ID[0] + tx.attempt);
    });
}, function (error, value, info) {
    print(error, value === undefined ? 0 : value.toFixed(), info.attempts, info.repeated);
}, { deadlineMs: 1000, isolation: "SERIALIZABLE" });

vext.insertRows(shop, "goods", ["id", "name"], [[1, "bolt"], [2, null]], function (error, stored) {
    print(error, stored);
}, { onProgress: function (stored, total) { print(stored, total); } });
vext.insertRows(pool, "goods", ["id"], function (index) { return index < 5 ? [index] : null; });

vext.pages(shop, { sql: "SELECT * FROM goods", key: ["id"], size: 100 }, function (page) {
    return page.rows > 0;
}, function (error, seen) { print(seen.pages); });
vext.pages(pool, { sql: "SELECT * FROM goods", key: "id" }, function (page, next) { setTimeout(next, 10); });

var cluster = vext.cluster({
    engine: "galera", port: 3306, nodes: [{ hostName: "10.0.0.1" }, { hostName: "10.0.0.2", port: 3307 }],
    databaseName: "shop", marks: "shop_marks",
    onMove: function (from, to, why) { print(from.length, to, why); }
});
cluster.query("SELECT 1", [], function (error, result) { print(result.rows); }, { replica: true });
cluster.transaction(function (tx, finish) { finish(); }, undefined, { id: "bill 7" });
cluster.committed("bill 7", function (error, yes) { print(yes ? 1 : 0); });
cluster.cleanMarks(3600000);
print(cluster.node(), cluster.nodes.join(), cluster.stats().moves);
vext.timers(function (callback, milliseconds) { return setTimeout(callback, milliseconds); }, clearTimeout);
