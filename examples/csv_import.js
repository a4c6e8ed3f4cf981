// The nightly import: CSV lines go into PostgreSQL in one transaction, all or none, with bound
// values and a progress report, while the script stays responsive.
//
//   ./run examples/csv_import.js hostName=127.0.0.1 userName=me databaseName=test file=prices.csv
//
// The password comes from PGPASSFILE (~/.pgpass) or PGPASSWORD, where no list of processes shows it.
// The file has a header and the columns article, name and price. Without file= some lines are made
// here; further arguments for them: rows=2000, broken=0 (number of a line with a bad price, which
// undoes everything). batch=250 is the number of lines in a task.

var settings = { rows: 2000, batch: 250, broken: 0 };
var file = "";
var db = new VEXT_SQL("import");
db.driverName = "QPSQL";
db.app_name = "nightly import";
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("=");
    var name = arguments[i].slice(0, at), value = arguments[i].slice(at + 1);
    if (name === "file") {
        file = value;
    } else if (name in settings) {
        settings[name] = Number(value);
    } else {
        db[name] = name === "port" ? Number(value) : value;
    }
}

// --- The CSV ---

function makeCsv(rows) {
    var lines = ["article,name,price"];
    for (var n = 1; n <= rows; n++) {
        var price = n === settings.broken ? "much" : (n / 100).toFixed(2);
        lines.push(n + ",\"Bolt \"\"M" + n + "\"\", zinc\"," + (n % 10 ? price : ""));
    }
    return lines.join("\n") + "\n";
}

// The lines of the file, or the made ones, without the header.
function readCsv() {
    if (!file) {
        return makeCsv(settings.rows).split("\n").slice(1, -1);
    }
    var lines = [];
    readLines(file, function (line, number) {
        if (number > 1) {
            lines.push(line);
        }
    });
    return lines;
}

// One line into its fields; quoted fields may hold commas and doubled quotes. An empty field that
// is not quoted is NULL. Throws when the quotes are broken.
function fieldsOf(line, number) {
    var fields = [];
    var at = 0;
    while (at <= line.length) {
        if (line.charAt(at) === "\"") {
            var text = "";
            for (at++; at < line.length; at++) {
                if (line.charAt(at) === "\"") {
                    if (line.charAt(at + 1) !== "\"") {
                        break;
                    }
                    at++;
                }
                text += line.charAt(at);
            }
            if (line.charAt(at) !== "\"" || (at + 1 < line.length && line.charAt(at + 1) !== ",")) {
                throw new Error((file || "line") + ":" + number + ": broken quotes");
            }
            fields.push(text);
            at += 2; // the closing quote and the comma
        } else {
            var end = line.indexOf(",", at);
            end = end < 0 ? line.length : end;
            fields.push(end > at ? line.slice(at, end) : null);
            at = end + 1;
        }
    }
    return fields;
}

// --- The import ---

var rows = [];
try {
    rows = readCsv().map(function (line, n) {
        return fieldsOf(line, n + 2);
    });
} catch (e) {
    console.error("nothing imported,", e.message);
    quit(1);
}
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
if (db.query("CREATE TABLE IF NOT EXISTS prices (article integer PRIMARY KEY, name text, " +
        "price numeric(10,2))") === false) {
    console.error(db.lastError);
    quit(1);
}

var imported = 0;
var failed = false;

// The worker must run before transaction(), so that its connection takes part.
db.start_thread();
if (!db.transaction()) {
    console.error("no transaction:", db.lastError);
    quit(1);
}
// Readers go on with the old prices until the commit.
db.query_thread(stopOnError, "DELETE FROM prices");
importFrom(0);

function stopOnError(result, error) {
    if (error || result === false) {
        fail(error || "the statement was not run");
    }
}

// Batch after batch: the next one is queued when the last one is done, so that the queue stays
// short and a failure stops the import early.
function importFrom(first) {
    var heads = [];
    var values = [];
    for (var n = first; n < rows.length && n < first + settings.batch; n++) {
        heads.push("INSERT INTO prices VALUES"); // becomes INSERT INTO prices VALUES(?,?,?)
        values.push(rows[n]);
    }
    if (heads.length === 1) {
        values = values[0]; // one statement takes its values directly
        heads = heads[0];
    }
    db.exec_thread(function (result, error) {
        if (failed) {
            return;
        }
        var errors = [].concat(error);
        for (var e = 0; e < errors.length; e++) {
            if (errors[e]) {
                fail("line " + (first + e + 2) + ": " + errors[e]);
                return;
            }
        }
        imported += errors.length;
        write("\rimported " + imported + " of " + rows.length); // shown on a terminal only
        if (imported < rows.length) {
            importFrom(imported);
        } else {
            finish();
        }
    }, heads, values);
}

function finish() {
    // The word alone, as a statement, commits the worker's transaction and tells how that went: a
    // session that the server has ended meanwhile has nothing left to commit.
    db.query_thread(function (result) {
        if (result === true) {
            count();
        } else {
            fail("the commit failed");
        }
    }, "commit");
}

function count() {
    db.commit(); // the main connection's, in which nothing was done
    db.query_thread(function (result, error) {
        if (error || result === false) {
            console.error("the prices cannot be counted:", error);
            end(1);
            return;
        }
        print("committed: " + result.N[0] + " prices, " + result.FREE[0] + " without a price");
        end(0);
    }, "SELECT count(*) AS n, count(*) - count(price) AS free FROM prices");
}

function fail(text) {
    if (failed) {
        return;
    }
    failed = true;
    db.rollback();
    console.error("nothing imported, " + text);
    end(1);
}

function end(code) {
    setTimeout(function () { // not inside the connection's own callback
        db.close();
        quit(code);
    }, 0);
}
