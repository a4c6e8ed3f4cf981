// Stopping a statement that takes too long. A read of many rows ends at the next row, since the
// worker looks at the stop request after each one. A statement that computes for long and then
// gives one row is cancelled by the driver: those of Vext's layer can, Qt's own (vext-run
// --stock-drivers) cannot, and the statement ends in its own time there.
//
//   ./run examples/stop_long_statement.js

var NUMBERS = "WITH RECURSIVE numbers(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM numbers";

var db = new VEXT_SQL("stop");
db.driverName = "QSQLITE";
db.databaseName = ":memory:"; // nothing is stored, so it does not matter that there are two
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
print("the driver can cancel: " + db.hasFeature().CancelQuery);

// Queues the statement, and calls stop() when it has been running for a while.
function runAndStop(sql, delivered, stop) {
    db.query_thread(function (result, error) {
        clearInterval(watch);
        delivered(result, error);
    }, sql);
    var watch = setInterval(function () {
        if (db.counters().thr_sql_currMs > 50) {
            clearInterval(watch);
            stop();
        }
    }, 10);
}

// --- A read without end ---

runAndStop(NUMBERS + ") SELECT n FROM numbers", function (result, error) {
    // It is "SQL запрос отменен", SQL query cancelled.
    print("delivered with an error: " + (error !== false));
    print("rows delivered: " + result.rows); // a part of a result is no result
    computeLong();
}, function () {
    print("\nstopping a read of rows without end");
    db.query_thread(notRun, "SELECT 1");
    db.stop_thread(5000); // waits until the thread has ended, 5 seconds at most
    print("still running: " + db.isRunning);
});

// What waited behind it is delivered too, in its turn.
function notRun(result, error) {
    print("the task behind it: result " + result + ", error " + error);
}

// --- One row after a long computation ---

function computeLong() {
    runAndStop(NUMBERS + " LIMIT 40000000) SELECT sum(n) AS total FROM numbers",
        function (result, error) {
            print("delivered with an error: " + (error !== false));
            setTimeout(goOn, 0);
        }, function () {
            print("\nstopping a computation");
            db.stop_thread(2000);
            print("still running: " + db.isRunning);
        });
}

// --- A stopped connection is not closed ---

function goOn() {
    // Returns as soon as the thread has ended: a task queued before that would not be run.
    db.stop_thread(60000);
    print("\nthe next task starts the thread again");
    db.query_thread(function (result) {
        print("answer: " + result.answer[0]);
        db.close();
    }, "SELECT 6 * 7 AS answer");
}
