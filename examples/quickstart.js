// A first look at VEXT_SQL, on an SQLite database in memory. Run it with ./run

function heading(text) {
    print("\n== " + text);
}

// One object, one connection. Parameters take effect at open().
var db = new VEXT_SQL("quickstart");
db.driverName = "QSQLITE";
db.databaseName = ":memory:";
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}

heading("Create a table and fill it");
db.query("create table parts (id integer primary key, name text, price real, note text)");
var inserted = db.query("insert into parts (name, price, note) values" +
    " ('bolt', 0.25, ''), ('nut', 0.10, null), ('washer', null, 'stainless')");
print("rows inserted:", inserted.numRowsAffected, "- last id:", inserted.lastInsertId);

heading("Select: NULL is not the empty string");
var parts = db.query("select id, name, price, note from parts order by id");
console.table(parts);

heading("A result is laid out column by column");
print("name:  ", parts.name);
print("price: ", parts.price);
print("first: ", parts.fields_names[1] + " = " + parts.fields_index[1][0]);

heading("Types and the rows that are NULL, for each column");
for (var i = 0; i < parts.fields; i++) {
    print(parts.fields_names[i] + ": " + parts.fields_typeN[i] +
        ", NULL in rows [" + parts.fields_nulls[i].join(", ") + "]");
}

heading("A mistake gives false, never an exception");
// The plugin also reports it to the host, which prints it to standard error.
var wrong = db.query("select id from no_such_table");
var error = db.lastErrors;
print("result:", wrong);
print("type:  ", error.typeStr);
print("text:  ", error.databaseText);
print("open:  ", db.isOpen);

heading("A transaction rolled back");
function count() {
    return db.query("select count(*) as n from parts").n[0];
}
print("before:  ", count());
db.transaction();
db.query("delete from parts");
print("deleted: ", count());
db.rollback();
print("restored:", count());

heading("Tables and views");
db.query("create view cheap as select name from parts where price < 0.2");
db.tables();
print("tables:", db.queryResult.TABLES);
db.tables(4);
print("views: ", db.queryResult.TABLES);

heading("What the driver can do");
var features = db.hasFeature();
for (var feature in features) {
    if (features[feature]) {
        print("  " + feature);
    }
}

heading("What the connection has done");
var done = db.counters();
print("statements that succeeded:", done.cnt_sql_ok);
print("statements that failed:   ", done.cnt_sql_er);
print("opened:", done.is_opened, "- driver:", done.driver);

heading("The same without waiting");
// Runs on the connection's own thread. (That thread has a connection of its own, which for
// ":memory:" is another, empty database.)
var queued = db.query_thread(function (result, error, milliseconds) {
    print("answer:", error ? error : result.answer[0]);
    db.close();
}, "select 6 * 7 as answer");
print("queued:", queued);
