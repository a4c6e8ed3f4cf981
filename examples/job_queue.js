// A job queue on PostgreSQL: whoever puts a job into the table wakes the workers with NOTIFY, and
// each job is done once however many workers there are.
//
//   ./run examples/job_queue.js hostName=127.0.0.1 userName=me databaseName=test
//
// The password comes from PGPASSFILE (~/.pgpass) or PGPASSWORD.
//
// Further arguments: jobs=5 (how many jobs to make), workers=2.

var settings = { jobs: 5, workers: 2 };
var parameters = {};
for (var i = 0; i < arguments.length; i++) {
    var at = arguments[i].indexOf("=");
    var name = arguments[i].slice(0, at), value = arguments[i].slice(at + 1);
    (name in settings ? settings : parameters)[name] = value;
}

function connect(name) {
    var db = new VEXT_SQL(name);
    db.driverName = "QPSQL";
    db.app_name = name;
    for (var key in parameters) {
        db[key] = key === "port" ? Number(parameters[key]) : parameters[key];
    }
    if (!db.open()) {
        console.error("cannot open the database:", db.lastError);
        quit(1);
    }
    return db;
}

// Every statement of the set-up must succeed.
function must(db, sql) {
    if (db.query(sql) === false) {
        console.error(db.lastError);
        quit(1);
    }
}

var TAKE = "UPDATE jobs SET state = 'running' WHERE id = (SELECT id FROM jobs " +
    "WHERE state = 'new' ORDER BY id LIMIT 1 FOR UPDATE SKIP LOCKED) RETURNING id, task";

// A worker takes jobs until there are none, then sleeps until the next notification.
function Worker(name, allDone) {
    var db = connect(name);
    var busy = false;
    var again = false;
    var closing = false;

    function take() {
        if (closing) {
            return;
        }
        if (busy) {
            again = true; // look once more before going to sleep: the wake-up came in between
            return;
        }
        busy = true;
        again = false;
        db.query_thread(function (result, error) {
            if (closing) {
                return; // a task that was still waiting when the connection was closed
            }
            if (error || result === false) {
                busy = false;
                console.error(name + ":", error || "the job was not taken");
                quit(1);
            } else if (result.rows === 0) {
                busy = false;
                if (again) {
                    take();
                }
            } else {
                work(result.ID[0], result.TASK[0]);
            }
        }, TAKE);
    }

    function work(id, task) {
        var outcome = task.split("").reverse().join(""); // the actual work
        // The values are bound: a task may hold any text.
        db.exec_thread(function (result, error) {
            busy = false;
            if (error) {
                console.error(name + ":", error);
            }
            allDone();
            take();
        }, "finish_job", [id, outcome, name]);
    }

    db.event.connect(take);
    db.add_event("jobs");
    take(); // jobs that were there before us
    this.close = function () {
        closing = true;
        db.close();
    };
}

var maker = connect("job maker");
must(maker, "DROP TABLE IF EXISTS jobs CASCADE");
must(maker, "CREATE TABLE jobs (id serial PRIMARY KEY, task text NOT NULL, " +
    "state text NOT NULL DEFAULT 'new', outcome text, done_by text)");
must(maker, "CREATE OR REPLACE FUNCTION tell_workers() RETURNS trigger LANGUAGE plpgsql AS " +
    "'BEGIN NOTIFY jobs; RETURN NULL; END'");
must(maker, "CREATE TRIGGER job_added AFTER INSERT ON jobs EXECUTE FUNCTION tell_workers()");
must(maker, "CREATE OR REPLACE FUNCTION finish_job(job integer, answer text, worker text) " +
    "RETURNS void LANGUAGE sql AS 'UPDATE jobs SET state = ''done'', outcome = answer, " +
    "done_by = worker WHERE id = job'");

var finished = 0;
var workers = [];

function oneMoreDone() {
    if (++finished < Number(settings.jobs)) {
        return;
    }
    var left = maker.query("SELECT id, task, outcome FROM jobs ORDER BY id");
    console.table(left);
    print("jobs done: " + maker.query("SELECT count(*) AS n FROM jobs WHERE state = 'done'").N[0]);
    // Not here: this runs inside a callback of a connection that would be closed.
    setTimeout(function () {
        for (var w = 0; w < workers.length; w++) {
            workers[w].close();
        }
        maker.close();
    }, 0);
}

for (var w = 1; w <= Number(settings.workers); w++) {
    workers.push(new Worker("worker " + w, oneMoreDone));
}
for (var n = 1; n <= Number(settings.jobs); n++) {
    // A statement head and its values: INSERT INTO jobs (task) VALUES(:a0)
    if (maker.exec("INSERT INTO jobs (task) VALUES", ["it's job " + n]) === false) {
        console.error(maker.lastError);
        quit(1);
    }
}
