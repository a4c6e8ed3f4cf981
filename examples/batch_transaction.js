// Batches on the worker thread, all rows or none. The first batch is committed; the second one holds
// an article that is already there, so nothing of it stays.
//
//   ./run examples/batch_transaction.js [database file]

var db = new VEXT_SQL("batch");
db.driverName = "QSQLITE";
// A file: the worker thread has a connection of its own, and both must see one database.
db.databaseName = arguments.length > 0 ? arguments[0] : "/tmp/vext_batch_transaction.sqlite";
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}
db.query("DROP TABLE IF EXISTS stock");
db.query("CREATE TABLE stock (article INTEGER PRIMARY KEY, pieces INTEGER NOT NULL)");

// Only numbers get into the text, so that it runs on any driver; see quoted_values.js for others.
function insert(article, pieces) {
    return "INSERT INTO stock VALUES (" + Number(article) + ", " + Number(pieces) + ")";
}

// Runs the statements in one transaction, then calls done(reason); "" means committed.
function batch(statements, done) {
    // The worker must run before transaction(), so that its connection takes part.
    if (!db.start_thread() || !db.transaction()) {
        undo();
        done("no transaction");
        return;
    }
    db.query_thread(function (result, error) {
        // Commit only when every statement ran: a failed one need not stop those behind it.
        var reason = failureOf(result, error, statements.length);
        if (reason) {
            undo();
            done(reason);
        } else {
            commit(done);
        }
    }, statements);
}

// Stopping the worker rolls its transaction back, whether or not the failure has ended it already;
// rollback() then ends the one of the main connection.
function undo() {
    db.stop_thread(60000);
    db.rollback();
}

// An element of `error` is false where the statement succeeded, a text where it failed, and
// undefined where it was not run.
function failureOf(result, error, count) {
    if (result === false) {
        return "the batch was not run";
    }
    var errors = [].concat(error);
    for (var i = 0; i < count; i++) {
        if (errors[i] !== false) {
            return "statement " + (i + 1) + ": " + (errors[i] || "not run");
        }
    }
    return "";
}

// commit() tells at once how the main connection fared. The worker's commit is a task, and tells its
// outcome through query_finish: it is the next task without a callback.
function commit(done) {
    db.query_finish.connect(outcome);
    if (!db.isRunning || !db.commit()) {
        db.query_finish.disconnect(outcome);
        undo();
        done("no commit");
    }

    function outcome(committed) {
        db.query_finish.disconnect(outcome);
        done(committed === true ? "" : "the worker's commit failed");
    }
}

function show(title, reason) {
    print(title + ": " + (reason ? "nothing kept, " + reason : "committed"));
    print("in stock: " + db.query("SELECT article FROM stock ORDER BY article").article.join(", "));
}

batch([insert(1, 10), insert(2, 20), insert(3, 30)], function (reason) {
    show("first batch", reason);
    batch([insert(4, 40), insert(2, 99), insert(5, 50)], function (reason) {
        show("second batch", reason);
        batch([insert(6, 60), insert(7, 70)], function (reason) {
            show("third batch", reason);
            db.close();
        });
    });
});
