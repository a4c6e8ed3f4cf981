// One report from three database systems: orders in PostgreSQL, stock in MariaDB, notes in SQLite.
//
//   ./run examples/three_drivers_report.js pg.hostName=127.0.0.1 pg.userName=me ... \
//       my.hostName=127.0.0.1 my.userName=me ...
//
// Arguments that begin with "pg.", "my." or "lite." set a property of that connection. The tables
// that are read are made here, so that there is something to read.

var sources = {
    pg: { driver: "QPSQL", what: "ordered" },
    my: { driver: "QMYSQL", what: "in stock" },
    lite: { driver: "QSQLITE", what: "note" }
};
for (var key in sources) {
    sources[key].db = new VEXT_SQL(key);
    sources[key].db.driverName = sources[key].driver;
}
sources.lite.db.databaseName = ":memory:";
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("=");
    var place = arguments[i].slice(0, at).split("."), value = arguments[i].slice(at + 1);
    sources[place[0]].db[place[1]] = place[1] === "port" ? Number(value) : value;
}

function fail(key, text) {
    console.error(key + ": " + text);
    quit(1);
}

for (key in sources) {
    if (!sources[key].db.open()) {
        fail(key, sources[key].db.lastError);
    }
}

function run(key, statements) {
    for (var s = 0; s < statements.length; s++) {
        if (sources[key].db.query(statements[s]) === false) {
            fail(key, sources[key].db.lastError);
        }
    }
}
run("pg", ["DROP TABLE IF EXISTS orders", "CREATE TABLE orders (part text, amount numeric(10,1))",
    "INSERT INTO orders VALUES ('bolt', 10), ('bolt', 5.5), ('nut', 7)"]);
run("my", ["DROP TABLE IF EXISTS stock", "CREATE TABLE stock (part VARCHAR(20), amount INTEGER)",
    "INSERT INTO stock VALUES ('bolt', 12), ('nut', 100), ('washer', 3)"]);
run("lite", ["CREATE TABLE notes (part TEXT, note TEXT)",
    "INSERT INTO notes VALUES ('washer', 'stainless only'), ('bolt', NULL)"]);

// Rows by part. Columns are read by number: PostgreSQL's names arrive in upper case, the others'
// as they are written.
var parts = {};

function take(key, result) {
    for (var row = 0; row < result.rows; row++) {
        var part = result.fields_index[0][row];
        parts[part] = parts[part] || {};
        parts[part][sources[key].what] = result.fields_index[1][row];
    }
}

// The two servers are asked at the same time, each on its own thread.
var waiting = 2;

function ask(key, sql) {
    sources[key].db.query_thread(function (result, error) {
        if (error || result === false) {
            fail(key, error || "not asked");
        }
        take(key, result);
        if (--waiting === 0) {
            report();
        }
    }, sql);
}
ask("pg", "SELECT part, sum(amount) FROM orders GROUP BY part");
ask("my", "SELECT part, amount FROM stock");
// Every connection to ":memory:" is a database of its own, so this one is asked directly.
take("lite", sources.lite.db.query("SELECT part, note FROM notes"));

function cell(value, width) {
    var text = value === undefined || value === null ? "-" : String(value);
    while (text.length < width) {
        text += " ";
    }
    return text;
}

function report() {
    var names = [];
    for (var part in parts) {
        names.push(part);
    }
    names.sort();
    print(cell("part", 8) + cell("ordered", 10) + cell("in stock", 10) + "note");
    for (var n = 0; n < names.length; n++) {
        var line = parts[names[n]];
        print(cell(names[n], 8) + cell(line.ordered, 10) + cell(line["in stock"], 10) +
            cell(line.note, 0));
    }
    setTimeout(function () { // not inside a connection's own callback
        for (var key in sources) {
            sources[key].db.close();
        }
    }, 0);
}
