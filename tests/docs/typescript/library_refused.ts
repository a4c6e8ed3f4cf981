// What the library's types refuse, each line with the compiler's error. Never run.

vext.row(false); // TS2551
vext.rows("text"); // TS2345
vext.pool({ hostName: "a" }); // TS2345
vext.pool({ driverName: "QPSQL", sise: 4 }); // TS2345
vext.transaction(new VEXT_SQL(), 5); // TS2345
vext.transaction(new VEXT_SQL(), function (tx) { tx.commit(); }); // TS2339
vext.insertRows(new VEXT_SQL(), "t", "id", []); // TS2345
vext.pages(new VEXT_SQL(), { key: "id" }, function () {}); // TS2345
vext.cluster({ engine: "oracle", nodes: [] }); // TS2322
vext.cluster({ engine: "galera", nodes: [{ port: "1" }] }); // TS2322
