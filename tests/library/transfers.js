// Transfers between accounts, for the tests of clusters. Each transfer writes a line of its own, so
// that a lost one and one that was done twice can both be seen.
//
// Globals: startTransfers(cluster, workers), `acked` (numbers of the transfers that `done` told as
// committed), `failures`, `infos`; stopTransfers(callback).

var acked = [], failures = [], infos = { repeated: 0, retried: 0 }, slowest = 0;
var transferNumber = 0, stopping = null, active = 0;
var TRANSFER_ACCOUNTS = 10;

var lastRefusal = "";

// Whether the node has answered what `work(db)` asks. A cluster that has just lost a node, or has stood
// still for a while, refuses statements until its nodes have found together again.
function answers(parameters, work) {
    var db = new VEXT_SQL("direct");
    try {
        db = open(parameters);
        work(db);
        return true;
    } catch (error) {
        lastRefusal = error.message;
        return false;
    } finally {
        db.close();
    }
}

function dropTransfers(db) {
    must(db, "DROP TABLE IF EXISTS accounts");
    must(db, "DROP TABLE IF EXISTS transfers");
}

function prepareTransfers(db) {
    dropTransfers(db);
    must(db, "CREATE TABLE accounts (id INTEGER PRIMARY KEY, amount INTEGER NOT NULL)");
    must(db, "CREATE TABLE transfers (line SERIAL PRIMARY KEY, n INTEGER NOT NULL)");
    for (var i = 0; i < TRANSFER_ACCOUNTS; i++) {
        must(db, "INSERT INTO accounts VALUES (" + i + ", 1000)");
    }
}

function transferOnce(cluster, callback) {
    var n = ++transferNumber, from = n % TRANSFER_ACCOUNTS, began = Date.now();
    var to = (from + 1 + n % (TRANSFER_ACCOUNTS - 1)) % TRANSFER_ACCOUNTS;
    cluster.transaction(function (tx, finish) {
        tx.query("UPDATE accounts SET amount = amount - ? WHERE id = ?", [n % 7, from]);
        tx.query("UPDATE accounts SET amount = amount + ? WHERE id = ?", [n % 7, to]);
        tx.query("INSERT INTO transfers (n) VALUES (?)", [n]);
        finish(null, n);
    }, function (error, value, info) {
        slowest = Math.max(slowest, Date.now() - began);
        if (error) {
            failures.push(n + " " + told(error) + " " + error.message);
        } else {
            acked.push(value);
            infos.repeated += info.repeated ? 1 : 0;
            infos.retried += info.attempts > 1 ? 1 : 0;
        }
        callback();
    });
}

function startTransfers(cluster, workers) {
    function work() {
        if (stopping) {
            if (--active === 0) {
                stopping();
            }
            return;
        }
        transferOnce(cluster, work);
    }
    for (active = 0; active < workers;) {
        active++;
        work();
    }
}

function stopTransfers(callback) {
    stopping = callback;
}

// What is wrong with the accounts and the transfers, as texts; empty when all is well.
function wrongOf(db) {
    var wrong = [], count = {}, i;
    var sum = Number(must(db, "SELECT sum(amount) AS s FROM accounts").fields_index[0][0]);
    if (sum !== TRANSFER_ACCOUNTS * 1000) {
        wrong.push("the sum is " + sum);
    }
    must(db, "SELECT n FROM transfers").fields_index[0].forEach(function (n) {
        count[n] = (count[n] || 0) + 1;
    });
    for (i in count) {
        if (count[i] !== 1) {
            wrong.push("transfer " + i + " was done " + count[i] + " times");
        }
    }
    for (i = 0; i < acked.length; i++) {
        if (!count[acked[i]]) {
            wrong.push("transfer " + acked[i] + " was acknowledged and is lost");
        }
    }
    return wrong;
}
