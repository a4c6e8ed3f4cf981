// Servers that only a script knows, for the tests of clusters: what goes wrong, and when, is the
// test's choice, and so every way can be gone. Pretended takes the place of VEXT_SQL, and a clock of
// its own that of the host's timers.
//
// Globals: useWorld(engine, faults); pump(until), which runs what is due until `until()` is true.

var world = null, timers = [], clock = 0;

function setPretended(task, milliseconds) {
    var timer = { task: task, at: clock + Math.max(0, milliseconds) }, at = timers.length;
    while (at > 0 && timers[at - 1].at > timer.at) {
        at--;
    }
    timers.splice(at, 0, timer);
    return timer;
}

function clearPretended(timer) {
    timer.task = null;
}

function pump(until) {
    for (var steps = 0; steps < 20000 && timers.length > 0 && !until(); steps++) {
        var timer = timers.shift();
        clock = timer.at;
        if (timer.task) {
            timer.task();
        }
    }
}

// Two servers that replicate all that is committed. `faults`: what goes wrong at the statement of each
// number, those of all attempts counted together, the watch's and rollbacks not.
function World(engine, faults) {
    this.engine = engine;
    this.faults = faults;
    this.step = 0;
    this.marks = {};       // of what is committed
    this.committed = [];   // the work of each transaction
    this.late = null;      // a commit without an answer that is still under way; "later" until the next
                           // one, where another node has not heard of it
    this.primary = 1;      // servers go by their ports
    this.silent = {};
    this.down = {};        // they take no new connections
    this.standsStill = 0;  // for so many milliseconds everything does, when a server is asked next
                           // how it is
}

// What was due meanwhile is due now.
function standStill(milliseconds) {
    clock += milliseconds;
    timers.forEach(function (timer) {
        timer.at = Math.max(clock, timer.at);
    });
}

var ERRORS = {
    lost: { postgresql: ["", "server closed the connection unexpectedly"], galera: [2013, "Lost connection to server"] },
    conflict: { postgresql: ["40001", "could not serialize access"], galera: [1213, "Deadlock found"] },
    duplicate: { postgresql: ["23505", "duplicate key"], galera: [1062, "Duplicate entry"] },
    unready: { postgresql: ["25006", "read-only transaction"], galera: [1047, "WSREP has not yet prepared node"] },
    refused: { postgresql: ["22012", "division by zero"], galera: [1365, "Division by 0"] },
    parted: { postgresql: ["", "server closed the connection unexpectedly"], galera: [1180, "Got error 6 during COMMIT"] }
};

// A commit's answer has no text of its own: lastError has it.
World.prototype.fail = function (db, kind, callback, isCommit) {
    var error = ERRORS[kind][this.engine], code = error[0];
    var text = this.engine === "postgresql" && code ? error[1] + " (" + code + ")" : error[1];
    db.lastError = text;
    db.lastErrors = { text: text, databaseText: text, driverText: "", type: 2, number: Number(code) || -1 };
    db.work = null;
    if (isCommit) {
        callback(false);
    } else {
        callback(false, text);
    }
};

World.prototype.land = function () {
    var work = this.late.work;
    this.late = null;
    this.marks[work.id] = true;
    this.committed.push(work);
};

World.prototype.insertMark = function (db, id, callback) {
    if (this.late && this.late.work.id === id) {
        if (this.engine === "postgresql" || this.late.host === db.port) {
            this.land(); // the server lets it be waited for
        } else {
            this.late.met = true; // another node has not heard of it yet
        }
    }
    if (this.marks[id]) {
        this.fail(db, "duplicate", callback, false);
    } else {
        db.work.id = id;
        callback({ rows: 0 });
    }
};

World.prototype.run = function (db, sql, callback) {
    var isCommit = sql === "commit", fault, found;

    function answer() {
        callback({ rows: 1, fields_names: ["state", "word"], fields_index: [[found], ["w"]] });
    }

    if (this.silent[db.port]) {
        return;
    }
    if (/ AS word/.test(sql)) {
        found = this.engine === "galera" || this.primary === db.port ? "primary" : "replica";
        if (this.standsStill) {
            standStill(this.standsStill);
            this.standsStill = 0;
            setPretended(answer, 30); // the script is the first to go on
        } else {
            answer();
        }
        return;
    }
    if (/^(rollback|SET )/.test(sql)) {
        db.work = null;
        callback(true);
        return;
    }
    fault = this.faults[this.step++];
    if (/^(done|late|parted)/.test(fault) && !isCommit || fault === "duplicate" && !/^(WORK|commit)/.test(sql)) {
        fault = ""; // that statement has no such
    }
    if (this.late && this.late.met && db.work && db.work.id && (isCommit || !this.late.waits)) {
        this.land(); // certified first: the other one is brought to its end
        this.fail(db, "conflict", callback, isCommit);
        return;
    }
    if (fault === "silent") {
        this.silent[db.port] = true;
        this.primary = 2;
        return;
    }
    if (fault === "late" || fault === "later") {
        this.late = { work: db.work, host: db.port, waits: fault === "later" };
        this.fail(db, "lost", callback, isCommit);
        return;
    }
    if (isCommit && (!fault || /^done/.test(fault))) {
        this.marks[db.work.id] = true;
        this.committed.push(db.work);
    }
    if (fault) {
        this.fail(db, fault.replace("done ", ""), callback, isCommit);
    } else if (/^(BEGIN|START)/.test(sql)) {
        db.work = { attempt: 0 };
        callback({ rows: 0 });
    } else if ((found = /vext_marks.*'(.*)'/.exec(sql)) !== null) {
        this.insertMark(db, found[1], callback);
    } else {
        if (!isCommit && !db.work) {
            this.committed.push({}); // outside of a transaction
        } else if (!isCommit) {
            db.work.attempt = Number(/\d+/.exec(sql)[0]);
        }
        callback(isCommit ? true : { rows: 0 });
    }
};

function Pretended() {
    this.isOpen = this.isRunning = false;
    this.lastError = "";
    this.lastErrors = { number: -1 };
}

Pretended.prototype.open = function () {
    this.isOpen = !world.down[this.port];
    this.lastError = this.isOpen ? "" : "could not connect to server";
    return this.isOpen;
};

Pretended.prototype.close = Pretended.prototype.deleteLater = Pretended.prototype.stop_thread = function () {
    this.isOpen = false;
};

Pretended.prototype.hasFeature = function () {
    return {};
};

Pretended.prototype.query_thread = function (callback, sql) {
    var db = this, own = world;
    setPretended(function () {
        if (db.isOpen && own === world) {
            own.run(db, sql, callback);
        }
    }, 0);
    return true;
};

function useWorld(engine, faults) {
    world = new World(engine, faults);
    timers = [];
    clock = 0;
    vext.timers(setPretended, clearPretended);
}
