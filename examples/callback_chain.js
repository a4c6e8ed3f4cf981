// A chain of callbacks: each step queues the next one when its own result has come. The script is
// free between the steps, and one function deals with whatever goes wrong.
//
//   ./run examples/callback_chain.js [database file]

var db = new VEXT_SQL("chain");
db.driverName = "QSQLITE";
// A file: the worker thread has a connection of its own, and both must see one database.
db.databaseName = arguments.length > 0 ? arguments[0] : "/tmp/vext_callback_chain.sqlite";
if (!db.open()) {
    console.error("cannot open the database:", db.lastError);
    quit(1);
}

// Runs the statements on the worker thread, then calls next(result).
function step(sql, next) {
    db.query_thread(function (result, error) {
        var reason = failureOf(result, error);
        if (reason) {
            stop(reason);
        } else {
            next(result);
        }
    }, sql);
}

// The first thing that went wrong, or "". A list of statements has a list of errors; an element is
// false where the statement succeeded.
function failureOf(result, error) {
    var errors = [].concat(error);
    for (var i = 0; i < errors.length; i++) {
        if (errors[i]) {
            return errors[i];
        }
    }
    return result === false ? "the statement was not run" : "";
}

function stop(reason) {
    console.error("stopped:", reason);
    quit(1);
}

// --- The chain ---

print("queueing the first step");
step(["DROP TABLE IF EXISTS orders",
    "CREATE TABLE orders (id INTEGER PRIMARY KEY, customer TEXT, total REAL)"], addOrder);
print("the script goes on at once");

function addOrder() {
    print("table is there");
    step("INSERT INTO orders (customer, total) VALUES ('Anna', 120.5)", addItems);
}

function addItems(inserted) {
    print("order " + inserted.lastInsertId + " is there");
    step(["INSERT INTO orders (customer, total) VALUES ('Boris', 80)",
        "INSERT INTO orders (customer, total) VALUES ('Anna', 10)",
        "SELECT count(*) AS n FROM orders"], report);
}

// A list of statements delivers a list of results.
function report(results) {
    print(results.length + " statements done, " + results[2].n[0] + " orders");
    step("SELECT customer, sum(total) AS sum FROM orders GROUP BY customer ORDER BY customer", show);
}

function show(sums) {
    console.table(sums);
    sayWithObject();
}

// The callback's own this-object and further arguments, without a closure.
var clerk = {
    name: "the clerk",
    receive: function (result, error, milliseconds, greeting, sign) {
        print(greeting + " from " + this.name + sign + " The largest total is " + result.top[0]);
        db.close();
    }
};

function sayWithObject() {
    db.query_thread(clerk, clerk.receive, "SELECT max(total) AS top FROM orders", ["Regards", "."]);
}
