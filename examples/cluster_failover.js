// Transfers between accounts on a cluster, each exactly once, while nodes come and go. Stop or kill
// the node in use and watch: nothing acknowledged is lost, and nothing is done twice.
//
//   ./run examples/cluster_failover.js engine=postgresql nodes=127.0.0.1:5432,127.0.0.1:5433 \
//       databaseName=test userName=me password=secret
//
// engine=galera for MariaDB with Galera. Further arguments: seconds=10, workers=4. With PostgreSQL
// somebody promotes a standby when the primary is gone; the library finds the new one.

include("vext");

var settings = { engine: "postgresql", nodes: [], deadlineMs: 60000 };
var choice = { seconds: 10, workers: 4 };
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("="), name = arguments[i].slice(0, at), value = arguments[i].slice(at + 1);
    if (name === "nodes") {
        settings.nodes = value.split(",").map(function (text) {
            var node = text.split(":");
            return { hostName: node[0], port: Number(node[1]) };
        });
    } else if (name in choice) {
        choice[name] = Number(value);
    } else {
        settings[name] = value;
    }
}
settings.onMove = function (from, to, why) {
    print("moved from " + from + " to " + to + ": " + why.split("\n")[0]);
};

var cluster = vext.cluster(settings);
var ACCOUNTS = 10, AMOUNT = 1000;
var done = 0, again = 0, committedBefore = 0, failed = 0, running = 0;
var end = 0;

function stop(error) {
    console.error(error.message || error);
    quit(1);
}

// Tables are made outside of transactions: on MariaDB each of these commits by itself.
function prepare(statements, next) {
    if (statements.length === 0) {
        next();
        return;
    }
    cluster.query(statements[0], function (error) {
        if (error) {
            stop(error);
        }
        prepare(statements.slice(1), next);
    });
}

function fill() {
    var rows = [];
    for (var i = 0; i < ACCOUNTS; i++) {
        rows.push([i, AMOUNT]);
    }
    vext.insertRows(cluster, "vext_accounts", ["id", "amount"], rows, function (error) {
        if (error) {
            stop(error);
        }
        end = Date.now() + choice.seconds * 1000;
        for (running = 0; running < choice.workers;) {
            running++;
            transfer();
        }
    });
}

function transfer() {
    if (Date.now() >= end) {
        if (--running === 0) {
            check();
        }
        return;
    }
    var from = Math.floor(Math.random() * ACCOUNTS), to = Math.floor(Math.random() * ACCOUNTS);
    var amount = 1 + Math.floor(Math.random() * 9);
    cluster.transaction(function (tx, finish) {
        // Run again after a loss, so it changes nothing but the database.
        tx.query("UPDATE vext_accounts SET amount = amount - ? WHERE id = ?", [amount, from]);
        tx.query("UPDATE vext_accounts SET amount = amount + ? WHERE id = ?", [amount, to]);
        finish(null, amount);
    }, function (error, value, info) {
        if (error) {
            failed++;
            console.error(error.kind + ": " + error.message);
        } else {
            done++;
            again += info.attempts > 1 ? 1 : 0;
            committedBefore += info.repeated ? 1 : 0;
        }
        transfer();
    });
}

function check() {
    cluster.query("SELECT sum(amount) AS total FROM vext_accounts", function (error, result) {
        if (error) {
            stop(error);
        }
        var total = Number(vext.one(result, true).total);
        print(done + " transfers, " + again + " tried again, " + committedBefore +
            " had committed without an answer, " + failed + " failed");
        print("total " + total + (total === ACCOUNTS * AMOUNT ? ": right" : ": WRONG"));
        cluster.close(function () {
            quit(total === ACCOUNTS * AMOUNT && failed === 0 ? 0 : 1);
        });
    });
}

prepare(["DROP TABLE IF EXISTS vext_accounts",
    "CREATE TABLE vext_accounts (id INTEGER PRIMARY KEY, amount INTEGER NOT NULL)"], fill);
