// Many queued tasks and a progress line: tasks of one connection are delivered in the order in which
// they were queued, so counting the callbacks is all it takes.
//
//   ./run examples/progress.js [database file]

var TASKS = 200;

var db = new VEXT_SQL("progress");
db.driverName = "QSQLITE";
// A file: the worker thread has a connection of its own, and both must see one database.
db.databaseName = arguments.length > 0 ? arguments[0] : "/tmp/vext_progress.sqlite";
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
db.query("DROP TABLE IF EXISTS points");
db.query("CREATE TABLE points (n INTEGER PRIMARY KEY, square INTEGER)");

var done = 0;
var failed = 0;

// The number of the task comes as an extra argument, behind the callback's own three.
function finished(result, error, milliseconds, task) {
    done++;
    if (error || result === false) {
        failed++;
        console.error("task " + task + ": " + (error || "not run"));
    }
    if (done % (TASKS / 8) === 0) {
        print(bar(done / TASKS) + " " + done + " of " + TASKS);
    }
    if (done === TASKS) {
        finish();
    }
}

function bar(part) {
    var text = "";
    for (var i = 0; i < 24; i++) {
        text += i < part * 24 ? "#" : ".";
    }
    return "[" + text + "]";
}

// One write transaction for all of them spares the disk 200 commits.
db.start_thread();
db.transaction();
for (var n = 1; n <= TASKS; n++) {
    db.query_thread(finished, "INSERT INTO points VALUES (" + n + ", " + n * n + ")", [n]);
}
db.commit(); // queued behind them
print("queued " + TASKS + " tasks, the script is free");

function finish() {
    // Runs on the worker, after the commit.
    db.query_thread(function (result) {
        print(result.n[0] + " rows, sum of squares " + result.sum[0] + ", " + failed + " failed");
        db.close();
    }, "SELECT count(*) AS n, sum(square) AS sum FROM points");
}
