// Transfers between accounts while their node is killed, or reads behind writes. Started by
// vext-scale --failover, which kills the node when it reads "begin", and prints what "end" tells.
//
// arguments: path of the library, path of transfers.js, settings of the cluster as JSON, "kill" or "reads"

function told(error) {
    return error ? error.kind + " " + error.code : "none";
}

function must(db, sql) {
    var result = db.query(sql);
    if (result === false) {
        throw new Error(sql + ": " + db.lastError);
    }
    return result;
}

include(arguments[0]);
include(arguments[1]);

var settings = JSON.parse(arguments[2]), WORKERS = 4, ROUND = 100, READS = 300;
var behind = -1; // acknowledged when the node was left
settings.onMove = function () {
    behind = acked.length;
};
settings.deadlineMs = 60000;
var cluster = vext.cluster(settings);

function open(name) {
    var db = new VEXT_SQL("direct"), own = settings.nodes.filter(function (node) {
        return node.hostName + ":" + node.port === name;
    })[0], member;
    for (member in own) {
        db[member] = own[member];
    }
    if (!db.open()) {
        throw new Error(db.lastError);
    }
    return db;
}

function end(outcome) {
    print("end " + JSON.stringify(outcome));
    cluster.close(function () { quit(0); });
}

function whenAcked(count, then) {
    if (failures.length > 0) {
        throw new Error(failures[0]);
    }
    if (acked.length >= count) {
        then();
    } else {
        setTimeout(function () { whenAcked(count, then); }, 10);
    }
}

function whenLeft(then) {
    if (behind >= 0) {
        whenAcked(behind + ROUND, then);
    } else {
        setTimeout(function () { whenLeft(then); }, 10);
    }
}

function transferThroughTheKill() {
    startTransfers(cluster, WORKERS);
    whenAcked(ROUND, function () {
        print("begin " + cluster.node());
        whenLeft(function () {
            stopTransfers(function () {
                var wrong = wrongOf(open(cluster.node()));
                var lost = wrong.filter(function (text) { return /is lost$/.test(text); }).length;
                end({ acked: acked.length, lost: lost, wrong: wrong.length - lost, again: infos.retried,
                    committed: infos.repeated, pause: slowest });
            });
        });
    });
}

function readBehindWrites() {
    var n = 0, stale = 0, milliseconds = 0;
    (function next() {
        if (n === READS) {
            end({ reads: READS, stale: stale, us: Math.round(milliseconds * 1000 / READS) });
            return;
        }
        n++;
        cluster.transaction(function (tx, finish) {
            tx.query("INSERT INTO transfers (n) VALUES (?)", [n], finish);
        }, function (error) {
            var began = Date.now();
            cluster.query("SELECT count(*) FROM transfers", function (failed, result) {
                milliseconds += Date.now() - began;
                if (error || failed) {
                    throw error || failed;
                }
                stale += Number(result.fields_index[0][0]) === n ? 0 : 1;
                next();
            }, { replica: true });
        });
    })();
}

var mode = arguments[3];
cluster.open(function (error, name) {
    if (error) {
        throw error;
    }
    var db = open(name);
    must(db, "DROP TABLE IF EXISTS accounts");
    must(db, "DROP TABLE IF EXISTS transfers");
    prepareTransfers(db);
    db.close();
    if (mode === "reads") {
        readBehindWrites();
    } else {
        transferThroughTheKill();
    }
});
