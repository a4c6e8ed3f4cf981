// What scripts need around VEXT_SQL when one connection, one attempt or one server is not enough:
// rows as objects, pools, transactions that are tried again, bulk inserts, pages, clusters. One
// file for any host; it defines the global `vext` and nothing else. docs/library.md describes it,
// types/vext_library.d.ts types it.
//
// Callbacks get (error, value): null and what was asked for, or an Error with `kind`, `code` and
// `sql`. Nothing here blocks but the opening of a connection, and nothing is called twice.

var vext = (function (scope) {
    // --- The host ---

    var handed = {};

    function hostFunction(name) {
        var found = handed[name] || scope[name];
        if (typeof found !== "function") {
            throw new Error("vext: this host has no " + name +
                "; hand it over: vext.timers(setTimeout, clearTimeout)");
        }
        return found;
    }

    var LONGEST = 2147483647; // milliseconds: what is more overflows in a host

    // Every call goes through a variable: a host's function may not care for a this-object.
    function later(milliseconds, task) {
        var set = hostFunction("setTimeout");
        return set(task, Math.min(milliseconds, LONGEST));
    }

    function forget(timer) {
        var clear = hostFunction("clearTimeout");
        if (timer !== undefined) {
            clear(timer);
        }
    }

    // Not before the caller has returned, where there are timers.
    function soon(callback, error) {
        if (!handed.setTimeout && !scope.setTimeout) {
            callback(error);
            return;
        }
        later(0, function () {
            callback(error);
        });
    }

    // Calls what must not keep the others from being told: its exception goes to the host by itself.
    function apart(callback, values) {
        try {
            callback.apply(null, values);
        } catch (thrown) {
            later(0, function () {
                throw thrown;
            });
        }
    }

    function now() {
        return new Date().getTime();
    }

    function nothing() {
    }

    function option(options, name, value) {
        return options && options[name] !== undefined ? options[name] : value;
    }

    // What only the script's author can put right.
    function mistake(text) {
        var error = new TypeError("vext: " + text);
        error.kind = "statement";
        error.code = error.sql = "";
        return error;
    }

    // @throws where it is no function
    function checkFunction(value, name) {
        if (typeof value !== "function") {
            throw mistake(name + " is a function, not " + value);
        }
    }

    // The same for one that may be left out.
    function functionOf(value, name) {
        if (value === undefined || value === null) {
            return nothing;
        }
        checkFunction(value, name);
        return value;
    }

    // @throws where they are no list; they may be left out
    function checkValues(values) {
        if (values !== undefined && values !== null && typeof values.push !== "function") {
            throw mistake("values are a list, not " + values);
        }
    }

    // @throws where it is no number from `least` on
    function numberOption(options, name, value, least) {
        var given = option(options, name, value);
        given = given === null ? value : Number(given);
        if (!(given >= least)) {
            throw mistake(name + " is a number from " + least + " on, not " +
                options[name]);
        }
        return given;
    }

    // What the functions take. A name that is misspelt is told, and not passed over.
    var CONNECTION = ["driverName", "databaseName", "userName", "password", "hostName", "port",
        "connectOptions", "app_name", "enableNull", "timeNotUse"];
    var RETRY = ["deadlineMs", "backoffMs", "backoffMaxMs"];
    var TRANSACTION = RETRY.concat("isolation", "id");
    var KNOWN = {
        "pool()": CONNECTION.concat("size", "waitMs", "pingAfterMs", "init", "name"),
        "transaction()": TRANSACTION,
        "insertRows()": TRANSACTION.concat("chunk", "onProgress"),
        "pages()": ["sql", "values", "key", "size"],
        "cluster()": CONNECTION.concat("engine", "nodes", "size", "init", "marks", "pingMs", "silenceMs",
            "renewMs", "onMove", "isolation", RETRY),
        "a node of cluster()": CONNECTION.concat("name"),
        "query() of a cluster": RETRY.concat("replica")
    };

    // @throws where they are no object, or hold a name that `place` does not know
    function checkOptions(options, place) {
        var known = KNOWN[place], name;
        if (!options || typeof options !== "object") {
            throw mistake(place + " takes an object with names, not " + options);
        }
        for (name in options) {
            // Their own method may be missing, or be one of the names.
            if (Object.prototype.hasOwnProperty.call(options, name) &&
                    known.indexOf(name) < 0) {
                throw mistake(place + " has no option \"" + name + "\", only " +
                    known.join(", "));
            }
        }
    }

    // The same for options that may be left out.
    function checkMore(options, place) {
        if (options !== null && options !== undefined) {
            checkOptions(options, place);
        }
    }

    // Those options that have one of the names, or else `others` of these names.
    function chosen(names, options, others) {
        var result = {}, i;
        for (i = 0; i < names.length; i++) {
            result[names[i]] = option(options, names[i], option(others, names[i], undefined));
        }
        return result;
    }

    // --- Errors ---

    // What the servers' codes mean to somebody who decides what to do next.
    var KINDS = [
        ["conflict", /^(40001|40P01|1213|1205)$/],
        ["duplicate", /^(23505|1062)$/],
        ["lost", /^(08...|57P0[1-5]|2002|2003|2006|2013|2055|1053|1077|1079|1080|1927|4031)$/],
        ["unready", /^(25006|1047|1290)$/]
    ];

    // The same where the driver gives a text and no code.
    var TEXTS = [
        [/WSREP has not yet prepared|--read-only option/i, "unready", "1047"],
        [/server closed the connection|no connection to the server|terminating connection/i, "lost", ""],
        [/could not (connect|receive|send)|connection (refused|timed out|lost|reset)/i, "lost", ""],
        [/SSL SYSCALL error|timeout expired|the database system is/i, "lost", ""],
        [/Lost connection to/i, "lost", "2013"],
        [/server has gone away/i, "lost", "2006"],
        [/Can't connect to/i, "lost", "2002"],
        [/Deadlock found/i, "conflict", "1213"],
        [/Lock wait timeout/i, "conflict", "1205"],
        [/Duplicate entry/i, "duplicate", "1062"],
        [/^Table '.*' doesn't exist/i, "statement", "1146"],
        [/database (table |schema )?is locked/i, "conflict", "5"],
        [/UNIQUE constraint failed/i, "duplicate", "19"],
        [/violation of PRIMARY or UNIQUE KEY constraint/i, "duplicate", "335544665"], // Firebird
        [/duplicate key value violates unique constraint/i, "duplicate", "23505"],    // through ODBC
        [/could not serialize access/i, "conflict", "40001"],
        [/lock conflict on no wait|lock time-?out on wait/i, "conflict", ""],
        [/^unknown error$/, "lost", ""], // no word from the driver: the line went before the statement did
        [/deadlock|update conflicts with concurrent update/i, "conflict", ""]
    ];

    function makeError(kind, text, code, sql) {
        var error = new Error(text);
        error.kind = kind;
        error.code = code || "";
        error.sql = sql || "";
        return error;
    }

    // Callbacks are told the database's text, lastError has the driver's behind it.
    function isErrorOf(errors, text) {
        return errors.text === text || errors.databaseText === text;
    }

    // The code of an error: PostgreSQL's stands in the text, the others' is a number that the
    // connection object keeps, unless another error has come since.
    function codeOf(db, text) {
        var found, last = "";
        var pattern = /\(([0-9A-Z]{5})\)/g;
        while ((found = pattern.exec(text)) !== null) {
            last = found[1];
        }
        if (last && !/^(mysql|sqlite)$/.test(engineOf(db))) {
            return last;
        }
        var errors = db.lastErrors;
        if (engineOf(db) === "postgresql" && isErrorOf(errors, text) && errors.number > 0) {
            return ("0000" + errors.number).slice(-5); // the number has lost the zeros
        }
        return isErrorOf(errors, text) && errors.number > 0 ? String(errors.number) : "";
    }

    function failure(db, text, sql) {
        var code = codeOf(db, text), kind = "", i;
        for (i = 0; i < KINDS.length && !kind; i++) {
            if (KINDS[i][1].test(code) && engineOf(db) !== "sqlite") {
                kind = KINDS[i][0];
            }
        }
        // A code says all where the server has given one: the text may hold what users have written.
        for (i = 0; i < TEXTS.length && !kind && !(code && /^(postgresql|mysql)$/.test(engineOf(db))); i++) {
            if (TEXTS[i][0].test(text)) {
                kind = TEXTS[i][1];
                code = code || TEXTS[i][2];
            }
        }
        if (!kind && engineOf(db) !== "sqlite" && db.lastErrors.type === 1 &&
                isErrorOf(db.lastErrors, text)) {
            kind = "lost";
        }
        // The server's errors have a code. One of the driver's without it is the client library's, in
        // the user's language: the line is gone.
        if (!kind && !code && engineOf(db) === "postgresql" && db.lastErrors.driverText &&
                isErrorOf(db.lastErrors, text)) {
            kind = "lost";
        }
        return makeError(kind || "statement", text, code, sql);
    }

    // --- Values ---

    function engineOf(db) {
        var name = db.driverName;
        return /^QPSQL/.test(name) ? "postgresql" : /^(QMYSQL|QMARIADB)/.test(name) ? "mysql" :
            /^QSQLITE/.test(name) ? "sqlite" : /^QIBASE/.test(name) ? "firebird" : "other";
    }

    // Qt's own drivers fill no placeholders from scripts, and none of them can cancel; drivers
    // that do both say so.
    function takesPlaceholders(db) {
        var features = db.hasFeature();
        return features.CancelQuery === true && features.PositionalPlaceholders === true;
    }

    function hexOf(text) {
        return encodeURIComponent(text).replace(/%([0-9A-F]{2})|[\s\S]/g, function (match, hex) {
            return hex || match.charCodeAt(0).toString(16);
        });
    }

    // The clock time in UTC. Only MariaDB stumbles over the letters. @throws where the date is none
    function dateText(engine, date) {
        if (isNaN(date.getTime())) {
            throw mistake("a date that is none cannot be written into a statement");
        }
        var text = date.toISOString();
        return engine === "mysql" ? text.replace("T", " ").replace("Z", "") : text;
    }

    function checkZero(text) {
        if (text.indexOf("\0") >= 0) {
            throw mistake("a text with U+0000 cannot be written into a statement");
        }
    }

    function quotedText(engine, text) {
        // How MariaDB reads a backslash depends on sql_mode, and Qt's connection to it cannot carry
        // every character: bytes come through whatever the settings.
        if (engine === "mysql" && /[\\\0\ud800-\udfff]/.test(text)) {
            return "_utf8mb4 X'" + hexOf(text) + "'";
        }
        var doubled = text.indexOf("'") < 0 ? text : text.split("'").join("''");
        if (engine === "postgresql" && text.indexOf("\\") >= 0) {
            return " E'" + doubled.split("\\").join("\\\\") + "'";
        }
        return "'" + doubled + "'";
    }

    // @throws where no statement can hold the value
    function checkValue(engine, value) {
        var type = typeof value;
        if (type === "number" && !isFinite(value) && engine !== "postgresql") {
            throw mistake("no SQL number: " + value);
        }
        if (type === "string" && engine !== "mysql") {
            checkZero(value);
        }
        if (type === "function" || type === "object" && value !== null && !(value instanceof Date) &&
                typeof value.toHex !== "function") {
            throw mistake("a value of this type cannot be written into a statement: " + type);
        }
    }

    function hexDigits(bytes) {
        var digits = bytes.toHex();
        if (!/^([0-9a-fA-F]{2})*$/.test(digits)) {
            throw mistake("toHex() gave no hexadecimal digits");
        }
        return digits;
    }

    function quotedNumber(engine, value) {
        if (!isFinite(value)) {
            return "'" + value + "'::float8";
        }
        // In parentheses, or two minus signs begin a comment.
        return value < 0 ? "(" + value + ")" : String(value);
    }

    function quoted(engine, value) {
        checkValue(engine, value);
        if (value === null || value === undefined) {
            return "NULL";
        }
        switch (typeof value) {
        case "number":
            return quotedNumber(engine, value);
        case "string":
            return quotedText(engine, value);
        case "boolean":
            return engine === "sqlite" ? (value ? "1" : "0") : (value ? "TRUE" : "FALSE");
        }
        if (value instanceof Date) {
            return "'" + dateText(engine, value) + "'";
        }
        return engine === "postgresql" ? "'\\x" + hexDigits(value) + "'::bytea" : "X'" + hexDigits(value) + "'";
    }

    // The parts of a text in which a question mark is no placeholder.
    var SKIPPED = {
        postgresql: /[eE]'(?:[^'\\]|\\[\s\S]|'')*'|'(?:[^']|'')*'|"(?:[^"]|"")*"|--[^\n]*|\/\*|\$([A-Za-z_\u0080-\uffff][\w\u0080-\uffff]*)?\$|[\w\u0080-\uffff]+\$*|\?/g,
        mysql: /'(?:[^'\\]|\\[\s\S]|'')*'|"(?:[^"\\]|\\[\s\S]|"")*"|`(?:[^`]|``)*`|--[^\n]*|#[^\n]*|\/\*(?:[\s\S]*?\*\/|[\s\S]*)|\?/g,
        sqlite: /'(?:[^']|'')*'|"(?:[^"]|"")*"|`(?:[^`]|``)*`|\[[^\]]*\]|--[^\n]*|\/\*(?:[\s\S]*?\*\/|[\s\S]*)|\?/g
    };
    SKIPPED.firebird = SKIPPED.other = SKIPPED.sqlite;

    // PostgreSQL's comments nest.
    function behindComment(sql, at) {
        var depth = 1, mark = /\/\*|\*\//g, found;
        mark.lastIndex = at;
        while (depth > 0 && (found = mark.exec(sql)) !== null) {
            depth += found[0] === "/*" ? 1 : -1;
        }
        return depth > 0 ? sql.length : mark.lastIndex;
    }

    function placeholdersOf(engine, sql) {
        var pattern = new RegExp(SKIPPED[engine].source, "g"), places = [], found, end;
        while ((found = pattern.exec(sql)) !== null) {
            if (found[0] === "?") {
                places.push(found.index);
            } else if (found[0] === "/*") {
                pattern.lastIndex = behindComment(sql, pattern.lastIndex);
            } else if (found[0].charAt(0) === "$" && engine === "postgresql") {
                end = sql.indexOf(found[0], pattern.lastIndex);
                pattern.lastIndex = end < 0 ? sql.length : end + found[0].length;
            }
        }
        return places;
    }

    // The statement with its values written into it.
    function filled(engine, sql, values) {
        var places = placeholdersOf(engine, sql);
        if (places.length !== values.length) {
            throw mistake(places.length + " placeholders and " + values.length +
                " values");
        }
        var text = "", from = 0;
        for (var i = 0; i < places.length; i++) {
            text += sql.slice(from, places[i]) + quoted(engine, values[i]);
            from = places[i] + 1;
        }
        return text + sql.slice(from);
    }

    function bindable(engine, values) {
        var list = [];
        for (var i = 0; i < values.length; i++) {
            checkValue(engine, values[i]);
            list.push(values[i] instanceof Date ? dateText(engine, values[i]) : values[i]);
        }
        return list;
    }

    // Comments and empty statements have one reading each, or many of them would take for ever; MariaDB
    // carries out what stands in comments that begin with an exclamation mark.
    var IN_FRONT = "^(?:\\s|;|(?:--|#)[^\\n]*(?:\\n|$)|" +
        "\\/\\*(?!M?!)[^*]*\\*+(?:[^\\/*][^*]*\\*+)*\\/)*";
    var EMPTY = new RegExp(IN_FRONT + "$");
    var ENDINGS = new RegExp(IN_FRONT +
        "(?:\\/\\*M?!\\d*\\s*)?(begin|start\\s+transaction|commit|rollback|abort|end)\\b", "i");

    // @throws where there is nothing to run. What a server or driver says to an empty statement, if
    // anything, is easily taken for a loss.
    function checkStatement(sql) {
        if (typeof sql !== "string") {
            throw mistake("a statement is a text, not " + sql);
        }
        if (EMPTY.test(sql)) {
            throw mistake("the statement is empty");
        }
    }

    // --- Sessions ---

    // One connection object and what is under way on its worker. `owned`: the library made it and
    // may give it up.
    function Session(db, owned) {
        this.db = db;
        this.owned = owned;
        this.engine = engineOf(db);
        this.binds = db.isOpen && takesPlaceholders(db);
        this.dead = false;
        this.ending = ""; // "commit" or "rollback" while it runs
        this.lastUsed = now();
        this.pending = [];
    }

    // Queues a task made by `queue`, and calls back once: with its outcome, or when the session
    // is given up before that.
    Session.prototype.task = function (sql, queue, callback) {
        var session = this;
        function deliver(error, result) {
            for (var i = 0; i < session.pending.length; i++) {
                if (session.pending[i] === deliver) {
                    session.pending.splice(i, 1);
                    session.lastUsed = now();
                    callback(error, result);
                    return;
                }
            }
        }
        this.pending.push(deliver);
        if (this.dead) {
            soon(deliver, makeError("lost", "the connection was given up", "", sql));
            return;
        }
        var queued = false, thrown = null;
        try {
            queued = queue(this.db, function (result, error) {
                if (error || error === "") { // some drivers fail without a word
                    deliver(failure(session.db, error || session.db.lastError ||
                        "the statement failed", sql));
                } else if (result === false) {
                    deliver(session.unrun(sql));
                } else {
                    deliver(null, result);
                }
            });
        } catch (error) {
            thrown = makeError("statement", String(error.message || error), "", sql);
        }
        if (!queued) {
            soon(deliver, thrown || makeError("lost", "the connection is closed", "", sql));
        }
    };

    // A task that was not run, or a commit that failed: lastError tells why.
    Session.prototype.unrun = function (sql) {
        var text = this.db.lastError, error;
        if (!text) {
            return makeError("lost", "the task was not run", "", sql);
        }
        error = failure(this.db, text, sql);
        if (error.kind === "statement" && !/^(commit|rollback)$/.test(sql)) {
            error.kind = "lost"; // the worker could not open its connection
        }
        return error;
    };

    Session.prototype.run = function (sql, values, callback) {
        var binds = this.binds && values && values.length > 0, engine = this.engine;
        this.task(sql, function (db, deliver) {
            checkStatement(sql);
            checkValues(values);
            // The plugin takes a text that begins so for the end of the transaction.
            var text = /^(commit|rollback)/i.test(sql) ? " " + sql : sql;
            if (binds) {
                return db.exec_thread(deliver, text, bindable(engine, values));
            }
            return db.query_thread(deliver, values && values.length ? filled(engine, text, values) : text);
        }, callback);
    };

    Session.prototype.runAll = function (list, callback) {
        var session = this, at = 0;
        (function next(error) {
            if (error || at === list.length) {
                callback(error || null);
            } else {
                session.run(list[at++], null, next);
            }
        })(null);
    };

    // Ends the transaction of the worker's connection: "commit" or "rollback".
    Session.prototype.end = function (word, callback) {
        var session = this;
        this.ending = word;
        this.task(word, function (db, deliver) {
            return db.query_thread(function (result, failed) {
                session.ending = "";
                if (session.dead) {
                    session.stop(); // it was given up meanwhile
                }
                deliver(result, failed);
            }, word);
        }, function (error) {
            if (!session.beganBoth) {
                callback(error);
                return;
            }
            session.beganBoth = false;
            session.command("rollback", function () { // the main connection's part
                callback(error);
            });
        });
    };

    // transaction() or rollback() on both connections; the worker's outcome comes as a signal.
    Session.prototype.command = function (name, callback) {
        this.task(name, function (db, deliver) {
            function hear(outcome, error) {
                if (typeof outcome === "boolean") {
                    db.query_finish.disconnect(hear);
                    deliver(outcome, error);
                }
            }
            db.query_finish.connect(hear);
            if (db.start_thread() && db[name]()) {
                return true;
            }
            db.query_finish.disconnect(hear);
            return false;
        }, callback);
    };

    var BEGINNINGS = { postgresql: "BEGIN", mysql: "START TRANSACTION", sqlite: "BEGIN IMMEDIATE" };

    Session.prototype.begin = function (isolation, callback) {
        var word = BEGINNINGS[this.engine], session = this;
        if (!word) { // begun by the driver only
            this.command("transaction", function (error) {
                session.beganBoth = !error;
                callback(error);
            });
        } else if (isolation && this.engine === "postgresql") {
            this.run(word + " ISOLATION LEVEL " + isolation, null, callback);
        } else if (isolation && this.engine === "mysql") {
            this.runAll(["SET TRANSACTION ISOLATION LEVEL " + isolation, word], callback);
        } else {
            this.run(word, null, callback);
        }
    };

    // Waits for nothing: what is under way is answered with the error now, and the connection is
    // closed when its worker has come back.
    Session.prototype.abandon = function (error) {
        var waiting = this.pending.slice(), i;
        if (!this.dead) {
            this.dead = true;
            // PostgreSQL takes a commit that waits for its standbys and is cancelled for done: everybody
            // would see what the standbys do not have.
            if (this.ending !== "commit" || !this.db.isRunning) {
                this.stop();
            }
        }
        for (i = 0; i < waiting.length; i++) {
            apart(waiting[i], [error]);
        }
    };

    // Drivers that can cancel end the statement that runs.
    Session.prototype.stop = function () {
        var db = this.db;
        db.stop_thread(0);
        if (db.isRunning) {
            db.finished.connect(function () {
                closeForGood(db);
            });
        } else {
            closeForGood(db);
        }
    };

    function closeForGood(db) {
        db.close();
        db.deleteLater();
    }

    // Opens a connection object of the library's own. @throws what open() failed with
    function openSession(settings, name) {
        var db = new VEXT_SQL(name), i, error;
        for (i = 0; i < CONNECTION.length; i++) {
            if (settings[CONNECTION[i]] !== undefined) {
                db[CONNECTION[i]] = settings[CONNECTION[i]];
            }
        }
        if (!db.open()) {
            error = failure(db, db.lastError || "the connection cannot be opened", "open");
            error.kind = "lost";
            db.deleteLater();
            throw error;
        }
        return new Session(db, true);
    }

    // --- Results ---

    function checkResult(result) {
        if (!result || !result.fields_names) {
            throw mistake("no result object: " + result);
        }
    }

    function rowAt(result, row, lowerCase) {
        var object = {}, names = result.fields_names, columns = result.fields_index;
        for (var c = 0; c < names.length; c++) {
            object[lowerCase ? names[c].toLowerCase() : names[c]] = columns[c][row];
        }
        return object;
    }

    function each(result, handle, lowerCase) {
        checkResult(result);
        for (var row = 0; row < result.rows; row++) {
            if (handle(rowAt(result, row, lowerCase), row) === false) {
                return row + 1;
            }
        }
        return result.rows;
    }

    function rows(result, lowerCase) {
        var list = [];
        each(result, function (row) {
            list.push(row);
        }, lowerCase);
        return list;
    }

    function one(result, lowerCase) {
        checkResult(result);
        return result.rows > 0 ? rowAt(result, 0, lowerCase) : null;
    }

    function columnOf(result, name) {
        var found = null;
        for (var c = 0; c < result.fields_names.length; c++) {
            if (result.fields_names[c].toLowerCase() === name.toLowerCase()) {
                if (found) {
                    throw makeError("statement", "vext: the result has two columns " + name);
                }
                found = result.fields_index[c];
            }
        }
        if (!found) {
            throw makeError("statement", "vext: the result has no column " + name);
        }
        return found;
    }

    // --- Pools ---

    function Pool(settings) {
        hostFunction("setTimeout");
        hostFunction("clearTimeout");
        this.settings = settings;
        this.size = Math.floor(numberOption(settings, "size", 4, 1));
        this.waitMs = numberOption(settings, "waitMs", 30000, 0);
        this.pingAfterMs = numberOption(settings, "pingAfterMs", 30000, -1);
        this.name = option(settings, "name", "pool");
        this.idle = [];
        this.busy = [];
        this.waiting = [];
        this.preparing = 0; // being pinged or set up: neither idle nor busy
        this.users = 0;    // transactions, which may be between two attempts
        this.closed = false;
        this.closers = []; // whom close() tells when all has ended
        this.counts = { opened: 0, lost: 0, queries: 0, failed: 0, timedOut: 0, mostWaiting: 0 };
    }

    function take(list, element) {
        for (var i = 0; i < list.length; i++) {
            if (list[i] === element) {
                list.splice(i, 1);
                return true;
            }
        }
        return false;
    }

    // `begun`: for work that a closed pool lets end.
    Pool.prototype.take = function (callback, waitMs, begun) {
        var pool = this, wait = waitMs === undefined ? this.waitMs : waitMs;
        if (this.closed && !begun) {
            soon(callback, makeError("closed", "the pool is closed"));
            return;
        }
        var waiter = { callback: callback };
        waiter.timer = later(wait, function () {
            if (take(pool.waiting, waiter)) {
                pool.counts.timedOut++;
                callback(makeError("timeout", "no connection became free within " + wait + " ms"));
                pool.endWhenDone();
            }
        });
        this.waiting.push(waiter);
        this.counts.mostWaiting = Math.max(this.counts.mostWaiting, this.waiting.length);
        this.serve();
    };

    // Hands connections to those who wait, first come, first served.
    Pool.prototype.serve = function () {
        while (this.preparing < this.waiting.length) {
            var session = this.idle.pop();
            if (session && (session.dead || !session.db.isOpen)) {
                this.drop(session);
            } else if (session && now() - session.lastUsed > this.pingAfterMs) {
                this.prepare(session, [pingOf(session.engine)]);
            } else if (session) {
                this.hand(session);
            } else if (this.busy.length + this.preparing < this.size) {
                if (!this.open()) {
                    return;
                }
            } else {
                return;
            }
        }
    };

    function pingOf(engine) {
        return engine === "firebird" ? "SELECT 1 FROM RDB$DATABASE" : "SELECT 1";
    }

    Pool.prototype.open = function () {
        try {
            var session = openSession(this.settings, this.name);
        } catch (error) {
            if (this.busy.length + this.preparing === 0) {
                this.failWaiting(error);
            }
            return false;
        }
        this.counts.opened++;
        this.prepare(session, [].concat(option(this.settings, "init", [])));
        return true;
    };

    Pool.prototype.prepare = function (session, statements) {
        var pool = this;
        if (statements.length === 0) {
            this.hand(session);
            return;
        }
        this.preparing++;
        session.runAll(statements, function (error) {
            pool.preparing--;
            if (!error) {
                pool.hand(session);
                return;
            }
            pool.drop(session);
            if (error.kind === "lost") {
                pool.serve(); // with another one; a server that is down fails in open()
            } else {
                pool.failWaiting(error);
            }
        });
    };

    Pool.prototype.hand = function (session) {
        var waiter = this.waiting.shift();
        if (!waiter) {
            this.idle.push(session);
            this.endWhenDone();
            return;
        }
        forget(waiter.timer);
        this.busy.push(session);
        waiter.callback(null, session);
    };

    Pool.prototype.drop = function (session) {
        this.counts.lost++;
        session.abandon(makeError("lost", "the connection was given up"));
    };

    Pool.prototype.failWaiting = function (error) {
        var waiting = this.waiting;
        this.waiting = [];
        for (var i = 0; i < waiting.length; i++) {
            forget(waiting[i].timer);
            soon(waiting[i].callback, error);
        }
        this.endWhenDone();
    };

    Pool.prototype.give = function (session, broken) {
        if (!take(this.busy, session)) {
            return;
        }
        if (broken || session.dead || !session.db.isOpen) {
            this.drop(session);
        } else {
            this.idle.push(session);
        }
        this.serve();
        this.endWhenDone();
    };

    // `refused`: who is told, in the place of `callback`, where there was no connection and nothing
    // was sent.
    Pool.prototype.query = function (sql, values, callback, waitMs, refused) {
        var pool = this;
        if (typeof values === "function") {
            callback = values;
            values = null;
        }
        callback = functionOf(callback, "callback");
        this.take(function (error, session) {
            if (error) {
                pool.counts.failed++;
                (refused || callback)(error);
                return;
            }
            session.run(sql, values, function (failed, result) {
                pool.counts[failed ? "failed" : "queries"]++;
                pool.give(session, failed && failed.kind === "lost");
                callback(failed || null, result);
            });
        }, waitMs);
    };

    Pool.prototype.stats = function () {
        var stats = { size: this.size, idle: this.idle.length, waiting: this.waiting.length,
            busy: this.busy.length + this.preparing };
        stats.open = stats.idle + stats.busy;
        for (var name in this.counts) {
            stats[name] = this.counts[name];
        }
        return stats;
    };

    Pool.prototype.close = function (done) {
        this.closed = true;
        this.closers.push(functionOf(done, "done"));
        this.endWhenDone();
    };

    Pool.prototype.endWhenDone = function () {
        if (!this.closed || this.busy.length || this.waiting.length || this.preparing || this.users) {
            return;
        }
        while (this.idle.length) {
            closeForGood(this.idle.pop().db);
        }
        while (this.closers.length) {
            soon(this.closers.shift(), null);
        }
    };

    // Answers everybody with the error, and waits for nobody.
    Pool.prototype.abandon = function (error) {
        var sessions = this.busy.concat(this.idle), i;
        this.closed = true;
        this.idle = [];
        this.failWaiting(error);
        for (i = 0; i < sessions.length; i++) {
            sessions[i].abandon(error);
        }
    };

    function publicPool(settings) {
        checkOptions(settings, "pool()");
        var pool = new Pool(settings);
        return {
            inner: pool,
            engine: engineOf(settings),
            query: function (sql, values, callback) {
                pool.query(sql, values, callback);
            },
            stats: function () {
                return pool.stats();
            },
            close: function (done) {
                pool.close(done);
            }
        };
    }

    // --- Transactions ---

    // Who uses the worker of a connection object that the script made: one transaction at a time.
    var locks = [];

    function lockOf(db) {
        for (var i = 0; i < locks.length; i++) {
            if (locks[i].db === db) {
                return locks[i];
            }
        }
        return null;
    }

    function singleSource(db) {
        var session = new Session(db, false);
        return {
            replaces: false,
            begin: nothing,
            end: nothing,
            take: function (callback, waitMs) {
                var lock = lockOf(db), waiter = { callback: callback };
                if (!lock) {
                    locks.push({ db: db, waiting: [] });
                    callback(null, session);
                    return;
                }
                waiter.timer = later(waitMs, function () {
                    take(lock.waiting, waiter);
                    callback(makeError("timeout", "the connection did not become free within " +
                        waitMs + " ms"));
                });
                lock.waiting.push(waiter);
            },
            give: function () {
                var lock = lockOf(db), next = lock.waiting.shift();
                if (next) {
                    forget(next.timer);
                    next.callback(null, session);
                } else {
                    take(locks, lock);
                }
            }
        };
    }

    function poolSource(pool) {
        return {
            replaces: true,
            begin: function () {
                if (!pool.closed) {
                    pool.users++;
                    this.begun = true;
                }
            },
            end: function () {
                if (this.begun) {
                    pool.users--;
                    pool.endWhenDone();
                }
            },
            take: function (callback, waitMs) {
                pool.take(callback, waitMs, this.begun);
            },
            give: function (session, broken) {
                pool.give(session, broken);
            }
        };
    }

    // One attempt: begin, mark, work, commit. Calls `ended` once with { error, phase, broken, gone }:
    // whether the connection has to be given up, and whether the node has failed.
    function Attempt(session, plan, ended) {
        this.session = session;
        this.plan = plan;
        this.ended = ended;
        this.phase = "begin";
        this.queue = [];
        this.running = true;
        this.inside = false; // code of the script's is under way
        this.finishing = false;
        this.own = false;    // the error is one that the script has given
        this.over = false;
    }

    Attempt.prototype.start = function () {
        var attempt = this, plan = this.plan;
        this.session.begin(plan.isolation, function (error) {
            if (error || attempt.late()) {
                attempt.fail(error || attempt.late());
            } else if (plan.mark) {
                attempt.phase = "mark";
                attempt.session.run("INSERT INTO " + plan.mark + " (id) VALUES (?)", [plan.id],
                    function (failed) {
                        if (failed || attempt.late()) {
                            attempt.fail(failed || attempt.late());
                        } else {
                            attempt.work();
                        }
                    });
            } else {
                attempt.work();
            }
        });
    };

    Attempt.prototype.late = function () {
        return this.expired || null;
    };

    Attempt.prototype.work = function () {
        var attempt = this, plan = this.plan;
        this.phase = "work";
        this.running = false;
        var tx = {
            id: plan.id,
            attempt: plan.attempts,
            engine: this.session.engine,
            binds: this.session.binds, // for insertRows
            query: function (sql, values, callback) {
                attempt.add(sql, values, callback);
            }
        };
        this.call(plan.work, [tx, function (error, value) {
            attempt.finish(error, value);
        }]);
    };

    // An exception of the script's code ends the transaction as finish(exception) does, also one
    // behind its finish(): nothing is committed before it has returned.
    Attempt.prototype.call = function (code, values) {
        this.inside = true;
        try {
            code.apply(null, values);
        } catch (error) {
            this.finish(error || new Error("vext: an exception without a value"));
        }
        this.inside = false;
        this.next();
    };

    Attempt.prototype.add = function (sql, values, callback) {
        if (typeof values === "function") {
            callback = values;
            values = null;
        }
        callback = functionOf(callback, "callback");
        if (this.over || this.finishing) {
            soon(callback, makeError("statement", "not run: the transaction has ended", "", sql));
            return;
        }
        if (ENDINGS.test(sql)) {
            var refused = makeError("statement", "transaction() begins and ends it itself", "", sql);
            soon(callback, refused);
            this.fail(refused);
            return;
        }
        this.queue.push({ sql: sql, values: values, callback: callback });
        this.next();
    };

    // Statements may still run: until the commit is sent an error takes back that all was well.
    Attempt.prototype.finish = function (error, value) {
        if (this.over || this.phase === "commit" || this.finishing && !error) {
            return;
        }
        this.finishing = true;
        if (error) {
            this.own = true; // a loss that it tells of is not this connection's
            this.fail(error);
        } else {
            this.value = value;
            this.next();
        }
    };

    Attempt.prototype.next = function () {
        var attempt = this, job;
        if (this.over || this.running) {
            return;
        }
        if (this.queue.length > 0) {
            this.running = true;
            job = this.queue.shift();
            this.session.run(job.sql, job.values, function (error, result) {
                attempt.running = false;
                if (error) {
                    attempt.failWith(job, error);
                } else if (!attempt.over) {
                    if (attempt.late()) {
                        attempt.fail(attempt.late());
                    } else {
                        attempt.call(job.callback, [null, result]);
                    }
                }
                if (attempt.ending) {
                    attempt.ending();
                }
            });
        } else if (this.finishing && !this.inside) {
            this.commit();
        }
    };

    Attempt.prototype.commit = function () {
        var attempt = this;
        this.phase = "commit";
        this.running = true;
        this.session.end("commit", function (error) {
            attempt.running = false;
            if (!error || error.kind !== "conflict") {
                attempt.plan.value = attempt.value; // an earlier one may have been carried out instead
            }
            if (!error) {
                attempt.close(null);
            } else if (error.kind === "lost" || error.kind === "timeout") {
                attempt.close(error);
            } else {
                attempt.fail(error);
            }
        });
    };

    // A statement failed: its callback hears of it first, and cannot change the outcome any more.
    Attempt.prototype.failWith = function (job, error) {
        var over = this.over;
        this.over = true;
        this.refuse([job], error);
        this.over = over;
        this.fail(error);
    };

    // Tells those whose statements failed or are not run any more; what they answer is too late.
    Attempt.prototype.refuse = function (jobs, error) {
        for (var i = 0; i < jobs.length; i++) {
            try {
                jobs[i].callback(error);
            } catch (ignored) {
                // The transaction is over already, and `done` tells why.
            }
        }
    };

    // Rolls back, after the statement that runs.
    Attempt.prototype.fail = function (error) {
        if (this.over) {
            return;
        }
        var attempt = this, left = this.queue;
        this.over = true;
        this.queue = [];
        this.refuse(left, makeError("statement", "not run: the transaction has failed"));
        function rollBack() {
            attempt.ending = null;
            if (attempt.session.dead || error.kind === "lost" && !attempt.own) {
                attempt.close(error);
                return;
            }
            attempt.session.end("rollback", function (failed) {
                // SQLite's and the server's own undoing leaves nothing to roll back.
                attempt.broken = failed !== null && attempt.session.engine !== "sqlite";
                attempt.close(error);
            });
        }
        if (this.running && this.phase === "work") {
            this.ending = rollBack;
        } else {
            rollBack();
        }
    };

    Attempt.prototype.close = function (error) {
        var ended = this.ended;
        this.over = true;
        this.ended = nothing;
        ended({ error: error, phase: this.phase, broken: this.broken,
            gone: isGone(error) && !this.own });
    };

    // The time is over.
    Attempt.prototype.expire = function (error) {
        this.expired = error;
        if (this.session.owned && this.running) {
            this.session.abandon(error);
        } else if (!this.running) {
            this.fail(error);
        }
    };

    var HALF_CHARACTER = /[\ud800-\udbff](?![\udc00-\udfff])|(^|[^\ud800-\udbff])[\udc00-\udfff]/;

    // An id is the key of a mark: what does not fit there would be cut, or be another transaction's,
    // as NaN would, and a text that is empty by mistake would protect nothing.
    function checkedId(id) {
        var text = String(id), known = typeof id === "string" || typeof id === "number" && isFinite(id);
        if (!known || text === "" || text.length > 100 || HALF_CHARACTER.test(text)) {
            throw mistake("id is a text of 1 to 100 characters or a number, not " + id);
        }
        return text;
    }

    function givenId(id) {
        return id === null ? "" : checkedId(id);
    }

    function makePlan(work, done, options) {
        return {
            work: work,
            done: functionOf(done, "done"),
            isolation: option(options, "isolation", ""),
            deadlineMs: numberOption(options, "deadlineMs", 30000, 0),
            backoffMs: numberOption(options, "backoffMs", 20, 0),
            backoffMaxMs: numberOption(options, "backoffMaxMs", 1000, 0),
            id: givenId(option(options, "id", null)),
            began: now(),
            attempts: 0,
            unresolved: null // the node of a commit of which nobody knows what became
        };
    }

    function leftOf(plan) {
        return plan.began + plan.deadlineMs - now();
    }

    function runAttempt(plan, session, ended) {
        plan.attempts++;
        var attempt = new Attempt(session, plan, function (outcome) {
            forget(timer);
            ended(outcome);
        });
        var timer = later(Math.max(1, leftOf(plan)), function () {
            attempt.expire(makeError("timeout",
                "the transaction did not end within " + plan.deadlineMs + " ms"));
        });
        attempt.start();
    }

    // Calls `again` after a random time that grows from attempt to attempt. @return false when
    // the deadline comes first
    function backOff(plan, again) {
        var most = Math.min(plan.backoffMaxMs, plan.backoffMs * Math.pow(2, plan.attempts));
        var wait = plan.backoffMs + Math.random() * Math.max(0, most - plan.backoffMs);
        if (wait > leftOf(plan)) {
            return false;
        }
        later(wait, again);
        return true;
    }

    function infoOf(plan, repeated) {
        return { id: plan.id, attempts: plan.attempts, milliseconds: now() - plan.began,
            repeated: repeated === true };
    }

    function unknownOutcome(plan, error) {
        var told = makeError("unknown", "nobody knows whether the commit was carried out: " +
            error.message, error.code, error.sql);
        told.id = plan.id;
        return told;
    }

    // Whether a commit that failed may have been carried out. On MariaDB nothing of the work is looked at
    // with the commit: an error there tells of trouble, and with Galera the other nodes may have it
    // (1180, from a node that was parted from them).
    function isInDoubt(outcome, engine) {
        return outcome.phase === "commit" && (outcome.gone || outcome.error.kind === "timeout" ||
            engine === "mysql" && outcome.error.kind !== "conflict");
    }

    // @throws where it is none of those that the function takes
    function checkTarget(target, place, inside) {
        if (!target || !(target.query_thread || target.inner || isCluster(target) || inside && target.attempt)) {
            throw mistake(place + " takes a connection object, a pool or a cluster" +
                (inside ? ", or a transaction" : "") + ", not " + target);
        }
    }

    function isCluster(target) {
        return Boolean(target.transaction && target.nodes);
    }

    function transaction(target, work, done, options) {
        hostFunction("setTimeout");
        hostFunction("clearTimeout");
        checkTarget(target, "transaction()", false);
        if (isCluster(target)) {
            target.transaction(work, done, options);
            return;
        }
        checkFunction(work, "work");
        checkMore(options, "transaction()");
        var source = target.inner ? poolSource(target.inner) : singleSource(target);
        var plan = makePlan(work, done, options);
        function end(error) {
            source.end();
            plan.done(error, error ? undefined : plan.value, infoOf(plan));
        }
        source.begin();
        (function again() {
            source.take(function (refused, session) {
                if (refused) {
                    end(refused);
                    return;
                }
                runAttempt(plan, session, function (outcome) {
                    var error = outcome.error, lost = outcome.gone && error.kind === "lost";
                    source.give(session, lost || outcome.broken);
                    if (error && isInDoubt(outcome, session.engine)) {
                        error = unknownOutcome(plan, error);
                    } else if (error && (error.kind === "conflict" || lost && source.replaces) &&
                            backOff(plan, again)) {
                        return;
                    }
                    end(error);
                });
            }, Math.max(1, leftOf(plan)));
        })();
    }

    // --- Many rows ---

    // JSON text of values[from .. to], without brackets. In slices: the engine's own writer takes
    // quadratic time for long lists.
    function jsonList(values, from, to) {
        var parts = [], step = 400;
        for (; from < to; from += step) {
            parts.push(JSON.stringify(values.slice(from, Math.min(from + step, to))).slice(1, -1));
        }
        return parts.join(",");
    }

    // Whether JSON says what each value is.
    function isPlain(values) {
        var notFinite = 0; // a sum that stays 0: comparing each number takes longer
        for (var i = 0; i < values.length; i++) {
            var value = values[i];
            if (typeof value === "number") {
                notFinite += value - value;
            } else if (value instanceof Date) {
                notFinite += value.getTime() - value.getTime();
            } else if (typeof value !== "string" && value !== null && value !== undefined &&
                    typeof value !== "boolean") {
                return false;
            }
        }
        return notFinite === 0;
    }

    function isPlainTable(list) {
        for (var r = 0; r < list.length; r++) {
            if (!isPlain(list[r])) {
                return false;
            }
        }
        return true;
    }

    function checkLengths(list, width) {
        for (var r = 0; r < list.length; r++) {
            var row = list[r];
            if (typeof row !== "object") {
                throw mistake("a row is a list, not " + row);
            }
            if (!row || row.length !== width) {
                throw mistake("a row has " + (row && row.length) + " values, not " + width);
            }
        }
    }

    // Values as the text of a PostgreSQL array; null where one has no text that every type takes. The
    // steps are over all values at once, which is many times quicker than one by one: no text has
    // U+0000, so that it can stand for NULL, and part the texts while they are escaped.
    function arrayText(values) {
        var texts = [], numbers = 0, notFinite = 0;
        for (var r = 0; r < values.length; r++) {
            var value = values[r];
            texts[r] = value;
            if (typeof value === "number") {
                notFinite += value - value; // stays 0: comparing each number takes longer
                numbers++;
            } else if (typeof value === "string") {
                checkZero(value);
            } else if (value === null || value === undefined) {
                texts[r] = "\0";
            } else if (value instanceof Date) {
                texts[r] = dateText("postgresql", value);
            } else if (typeof value !== "boolean") {
                return null;
            }
        }
        if (notFinite !== 0) {
            return null;
        }
        if (numbers === values.length) {
            return "{" + values.join(",") + "}";
        }
        var text = texts.join("\0,");
        if (/["\\]/.test(text)) {
            texts = text.split("\\").join("\\\\").split('"').join('\\"').split("\0,");
        }
        return ('{"' + texts.join('","') + '"}').split('"\0"').join("NULL");
    }

    // The text of an array for each column, null where one has none.
    function columnArrays(list, width) {
        var arrays = [];
        for (var c = 0; c < width; c++) {
            var values = [];
            for (var r = 0; r < list.length; r++) {
                values[r] = list[r][c];
            }
            arrays[c] = arrayText(values);
            if (arrays[c] === null) {
                return null;
            }
        }
        return arrays;
    }

    // unnest() among the columns: behind FROM its rows would be stored once more on their way.
    function unnestForm(head, types) {
        return head + " SELECT unnest(?::" + types.join("[]), unnest(?::") + "[])";
    }

    function jsonEachForm(head, width) {
        var columns = [];
        for (var c = 0; c < width; c++) {
            columns.push("json_extract(value, '$[" + c + "]')");
        }
        return head + " SELECT " + columns.join(", ") + " FROM json_each(?)";
    }

    function valuesText(head, list, engine) {
        var lines = [];
        for (var r = 0; r < list.length; r++) {
            var row = list[r], cells = [];
            for (var c = 0; c < row.length; c++) {
                cells[c] = quoted(engine, row[c]);
            }
            lines[r] = cells.join(", ");
        }
        return head + " VALUES (" + lines.join("), (") + ")";
    }

    var QUOTES = { '"': '"', "`": "`", "[": "]" };

    // How a column is named in the catalogue: folded, unless it is quoted.
    function foldedName(name) {
        var quote = QUOTES[name.charAt(0)];
        return quote ? name.slice(1, -1).split(quote + quote).join(quote) : name.toLowerCase();
    }

    // What the engine needs to know before the quickest form can be written.
    var CATALOGUE = {
        postgresql: "SELECT a.attname AS name, format_type(a.atttypid, -1) AS type " +
            "FROM pg_attribute a JOIN pg_type t ON t.oid = a.atttypid " +
            "WHERE a.attrelid = to_regclass(?) AND a.attnum > 0 AND NOT a.attisdropped " +
            "AND t.typtype <> 'd' AND t.typcategory <> 'A' AND t.typdelim = ','",
        sqlite: "SELECT sqlite_compileoption_used('ENABLE_JSON1') AS has, " +
            "sqlite_compileoption_used('OMIT_JSON') AS lacks, sqlite_version() AS version"
    };

    function typesOf(columns, catalogue) {
        var known = {}, types = [];
        each(catalogue, function (row) {
            known["type " + row.name] = row.type;
        }, true);
        for (var c = 0; c < columns.length; c++) {
            var type = known["type " + foldedName(columns[c])];
            if (!type) {
                return null;
            }
            types.push(type);
        }
        return types;
    }

    function hasJson(catalogue) {
        var told = one(catalogue, true), version = told.version.split(".");
        return Boolean(told.has || !told.lacks && Number(version[0]) * 100 + Number(version[1]) >= 338);
    }

    // A function that writes the statement for a list of rows: its text and values. The text is the
    // same each time wherever it can be; drivers keep what they have prepared.
    function rowsWriter(engine, head, names, catalogue) {
        var width = names.length;
        var types = engine === "postgresql" ? typesOf(names, catalogue) : null;
        var unnest = types && unnestForm(head, types);
        var jsonEach = engine === "sqlite" && hasJson(catalogue) && jsonEachForm(head, width);
        return function (list) {
            checkLengths(list, width);
            var arrays = unnest ? columnArrays(list, width) : null;
            if (arrays) {
                return { sql: unnest, values: arrays };
            }
            var table = jsonEach && isPlainTable(list) ? jsonList(list, 0, list.length) : null;
            // SQLite's JSON ends a text at U+0000.
            if (table && table.indexOf("\\u0000") < 0) {
                return { sql: jsonEach, values: ["[" + table + "]"] };
            }
            return { sql: valuesText(head, list, engine), values: [] };
        };
    }

    var CHUNKS = { postgresql: 2000, sqlite: 2000, mysql: 1000, firebird: 1, other: 1 };
    var CHUNK_TEXT = 4000000; // characters of one statement, about; twice as many at most

    function sizeOf(statement) {
        var size = statement.sql.length;
        for (var i = 0; i < statement.values.length; i++) {
            size += statement.values[i].length;
        }
        return size;
    }

    function insertWith(tx, table, columns, source, options, done) {
        var head = "INSERT INTO " + table + " (" + columns.join(", ") + ")";
        var chunk = Math.floor(numberOption(options, "chunk", CHUNKS[tx.engine], 1));
        var progress = functionOf(option(options, "onProgress", nothing), "onProgress");
        var total = typeof source === "function" ? undefined : source.length;
        var read = 0, stored = 0, running = false, ready = null, atEnd = false, ended = false, write = null;
        var left = []; // rows that were read and had no room
        var allRead = false;

        function nextRows() {
            var list = left.splice(0, chunk), row, more;
            if (typeof source !== "function") {
                more = source.slice(read, read + chunk - list.length);
                read += more.length;
                list = list.length > 0 ? list.concat(more) : more;
            } else {
                while (!allRead && list.length < chunk && (row = source(read))) {
                    read++;
                    list.push(row);
                }
                allRead = allRead || list.length < chunk; // its end is not asked for again
            }
            atEnd = list.length < chunk;
            return list;
        }

        // Servers take no statement of any length, and how long rows are shows when they are written.
        function writeSome(list) {
            var statement = write(list), size = sizeOf(statement), room;
            while (size > 2 * CHUNK_TEXT && list.length > 1) {
                room = Math.max(1, Math.floor(list.length * CHUNK_TEXT / size));
                left = list.slice(room).concat(left);
                atEnd = false;
                list = list.slice(0, room);
                statement = write(list);
                size = sizeOf(statement);
            }
            chunk = Math.max(1, Math.min(chunk, Math.floor(list.length * CHUNK_TEXT / size)));
            statement.rows = list.length;
            return statement;
        }

        function end(error) {
            if (!ended) {
                ended = true;
                done(error, error ? undefined : stored);
            }
        }

        // Rows that cannot be written and what the script's functions throw end it.
        function guarded(code) {
            try {
                code();
            } catch (error) {
                if (ended) {
                    throw error; // of done()
                }
                end(error || new Error("vext: an exception without a value"));
            }
        }

        // Writes the next statement while one runs.
        function feed() {
            while (!ended && !atEnd && !ready) {
                ready = prepare();
                if (!running) {
                    sendReady();
                }
            }
            if (atEnd && !running) {
                end(null);
            }
        }

        function prepare() {
            var list = nextRows(), statement;
            if (list.length === 0) {
                return null;
            }
            statement = writeSome(list);
            // Now, and not while the worker waits for it.
            if (!tx.binds && statement.values.length > 0) {
                statement.sql = filled(tx.engine, statement.sql, statement.values);
                statement.values = [];
            }
            return statement;
        }

        function sendReady() {
            var statement = ready;
            ready = null;
            if (!statement || ended) {
                return;
            }
            running = true;
            tx.query(statement.sql, statement.values, function (error) {
                running = false;
                if (error || ended) {
                    end(error);
                    return;
                }
                stored += statement.rows;
                guarded(function () {
                    sendReady(); // first of all: the worker would wait
                    progress(stored, total);
                    feed();
                });
            });
        }

        function begin(error, catalogue) {
            if (error) {
                end(error);
                return;
            }
            guarded(function () {
                write = rowsWriter(tx.engine, head, columns, catalogue);
                feed();
            });
        }
        if (CATALOGUE[tx.engine]) {
            tx.query(CATALOGUE[tx.engine], tx.engine === "postgresql" ? [table] : null, begin);
        } else {
            soon(begin, null);
        }
    }

    function insertRows(target, table, columns, source, done, options) {
        checkTarget(target, "insertRows()", true);
        if (!columns || typeof columns.join !== "function" || columns.length === 0) {
            throw mistake("insertRows takes a list of columns, not " + columns);
        }
        if (!source || typeof source !== "function" && typeof source.push !== "function") {
            throw mistake("insertRows takes a list of rows or a function, not " + source);
        }
        checkMore(options, "insertRows()");
        if (target.query && target.attempt) { // inside a transaction
            insertWith(target, table, columns, source, options, functionOf(done, "done"));
            return;
        }
        transaction(target, function (tx, finish) {
            insertWith(tx, table, columns, source, options, finish);
        }, done, chosen(TRANSACTION, options));
    }

    // --- Pages ---

    // Rows behind the last one: (a > x) OR (a = x AND b > y).
    function behindKey(keys) {
        var ways = [];
        for (var k = 0; k < keys.length; k++) {
            ways.push("(" + keys.slice(0, k).concat("").join(" = ? AND ") + keys[k] + " > ?)");
        }
        return ways.join(" OR ");
    }

    function keyValues(last) {
        var values = [];
        for (var k = 0; k < last.length; k++) {
            values = values.concat(last.slice(0, k + 1));
        }
        return values;
    }

    function isSame(a, b) {
        return a === b || a instanceof Date && b instanceof Date && a.getTime() === b.getTime();
    }

    // @throws where two rows, which are in the order of the key, have the same one, the first that of
    // the page before
    function checkKeys(columns, count, last) {
        for (var row = last ? 0 : 1; row < count; row++) {
            var equal = 0;
            while (equal < columns.length &&
                    isSame(columns[equal][row], row > 0 ? columns[equal][row - 1] : last[equal])) {
                equal++;
            }
            if (equal === columns.length) {
                throw makeError("statement", "vext: the key does not tell the rows apart");
            }
        }
    }

    function keyColumns(result, keys) {
        var columns = [];
        for (var k = 0; k < keys.length; k++) {
            columns.push(columnOf(result, foldedName(keys[k])));
        }
        return columns;
    }

    // The key of row `row`. @throws where the next page could not be told by it
    function keyOf(columns, keys, row) {
        var last = [];
        for (var k = 0; k < keys.length; k++) {
            var value = columns[k][row];
            if (value === null || value === undefined) {
                throw makeError("statement", "vext: the key " + keys[k] + " is NULL");
            }
            if (typeof value === "number" && Math.abs(value) > 9007199254740991) {
                throw makeError("statement", "vext: the key " + keys[k] + " has more digits than a script number; " +
                    "select it as text under another name, and page by something else");
            }
            last.push(value);
        }
        return last;
    }

    // Takes the rows from `size` on away.
    function cutTo(size, result) {
        var c, nulls;
        for (c = 0; c < result.fields_index.length; c++) {
            result.fields_index[c].length = size;
            nulls = result.fields_nulls[c];
            while (nulls.length > 0 && nulls[nulls.length - 1] >= size) {
                nulls.pop();
            }
        }
        if (result.numRowsAffected === result.rows) {
            result.numRowsAffected = size;
        }
        result.rows = result.length = size;
    }

    // A row more than the page has: it tells whether there is another page, and whether the key of the
    // last row comes again, behind which the next page would begin.
    function byKey(plan) {
        var keys = [].concat(plan.key), last = null, asked = plan.size + 1;
        var limit = plan.engine === "firebird" ? " FETCH FIRST " + asked + " ROWS ONLY" : " LIMIT " + asked;

        // @return whether rows follow
        function take(result) {
            var columns = result.rows > 0 ? keyColumns(result, keys) : [], more = result.rows > plan.size;
            if (result.rows > 0) {
                var end = keyOf(columns, keys, Math.min(result.rows, plan.size) - 1);
                checkKeys(columns, result.rows, last);
                last = end;
            }
            if (more) {
                cutTo(plan.size, result);
            }
            return more;
        }

        return {
            next: function (query, callback) {
                var sql = "SELECT * FROM (" + plan.sql + "\n) vext_page" + // it may end with a comment
                    (last ? " WHERE " + behindKey(keys) : "") + " ORDER BY " + keys.join(", ") + limit;
                query(sql, (plan.values || []).concat(last ? keyValues(last) : []),
                    function (error, result) {
                        try {
                            var more = error ? false : take(result);
                        } catch (wrong) {
                            error = wrong;
                        }
                        callback(error, result, more);
                    });
            }
        };
    }

    var cursors = 0; // made so far: a transaction may have several

    function byCursor(plan) {
        var declared = false, name = "vext_pages_" + ++cursors;
        return {
            next: function (query, callback) {
                function fetch(error) {
                    declared = true;
                    if (error) {
                        callback(error);
                    } else {
                        query("FETCH " + plan.size + " FROM " + name, null, function (failed, result) {
                            callback(failed, result, !failed && result.rows === plan.size);
                        });
                    }
                }
                if (declared) {
                    fetch(null);
                } else {
                    // Written into the text: the server prepares no DECLARE.
                    query("DECLARE " + name + " NO SCROLL CURSOR FOR " + (plan.values ?
                        filled("postgresql", plan.sql, plan.values) : plan.sql), null, fetch);
                }
            }
        };
    }

    // Fetches page after page until there is none, or onPage says that it is enough.
    function walk(pages, query, onPage, done) {
        var seen = { rows: 0, pages: 0, stopped: false }, ended = false;

        function end(error) {
            if (!ended) {
                ended = true;
                done(error, error ? undefined : seen);
            }
        }

        function handle(result, rowsFollow) {
            var answered = false;
            function next(more) {
                if (answered) {
                    return;
                }
                answered = true;
                seen.stopped = more === false;
                if (seen.stopped || !rowsFollow) {
                    end(null);
                } else {
                    fetch();
                }
            }
            seen.rows += result.rows;
            seen.pages++;
            try {
                var answer = onPage(result, next);
            } catch (error) {
                end(error || new Error("vext: an exception without a value"));
                return;
            }
            if (onPage.length < 2 || answer === false) {
                next(answer);
            }
        }

        function fetch() {
            pages.next(query, function (error, result, rowsFollow) {
                if (ended) {
                    return; // onPage threw behind its call of next()
                }
                if (error) {
                    end(error);
                } else if (result.rows === 0) {
                    end(null);
                } else {
                    handle(result, rowsFollow);
                }
            });
        }
        fetch();
    }

    var LARGEST_PAGE = 2147483646; // servers count that far, and one row more is asked for

    function pages(target, request, onPage, done) {
        checkTarget(target, "pages()", true);
        checkOptions(request, "pages()");
        checkStatement(request.sql);
        checkValues(request.values);
        checkFunction(onPage, "onPage");
        var plan = { sql: request.sql, values: request.values, key: request.key,
            size: Math.floor(Math.min(numberOption(request, "size", 1000, 1), LARGEST_PAGE)) };
        done = functionOf(done, "done");
        if (request.key && target.query_thread) {
            var session = new Session(target, false);
            plan.engine = session.engine;
            walk(byKey(plan), function (sql, values, callback) {
                session.run(sql, values, callback);
            }, onPage, done);
        } else if (request.key) {
            plan.engine = target.engine;
            walk(byKey(plan), target.query, onPage, done);
        } else if (target.attempt) {
            walk(byCursor(plan), target.query, onPage, done);
        } else {
            byCursorAlone(target, plan, onPage, done);
        }
    }

    // A cursor lives in a transaction. Pages that were handed over are not taken back: one attempt.
    function byCursorAlone(target, plan, onPage, done) {
        transaction(target, function (tx, finish) {
            if (tx.engine !== "postgresql") {
                finish(mistake("pages need a key; only PostgreSQL has cursors for scripts"));
            } else if (tx.attempt > 1) {
                finish(makeError("lost", "the cursor was lost with its transaction"));
            } else {
                walk(byCursor(plan), tx.query, onPage, finish);
            }
        }, done, { deadlineMs: 2147483647 });
    }

    // --- Clusters ---

    // What makes a node of each kind of cluster usable. `ready` answers one row: state and a text
    // that is unlike any other.
    var CLUSTERS = {
        postgresql: {
            driverName: "QPSQL",
            connectOptions: "connect_timeout=2",
            // The age is the server's timeline: a standby that was promoted has a later one than the server
            // that was the primary before.
            ready: "SELECT CASE WHEN pg_is_in_recovery() THEN 'replica' ELSE 'primary' END AS state, " +
                "CASE WHEN pg_is_in_recovery() THEN '' ELSE " +
                "substr(pg_walfile_name(pg_current_wal_lsn()), 1, 8) END AS age, " +
                "md5(random()::text || clock_timestamp()::text || pg_backend_pid()::text) AS word",
            // The words of a server that ends when its sessions have gone; their code is not told here.
            leaving: /shutting down/,
            init: [],
            // Clients of other time zones clean it, too.
            marks: "id VARCHAR(100) NOT NULL PRIMARY KEY, " +
                "made TIMESTAMP WITH TIME ZONE NOT NULL DEFAULT CURRENT_TIMESTAMP",
            interval: function (seconds) {
                return "now() - interval '" + seconds + " seconds'";
            }
        },
        galera: {
            driverName: "QMYSQL",
            connectOptions: "MYSQL_OPT_CONNECT_TIMEOUT=2",
            ready: "SELECT IF(ready.VARIABLE_VALUE = 'ON' AND part.VARIABLE_VALUE = 'Primary', 'primary', " +
                "'unready') AS state, UUID() AS word FROM information_schema.GLOBAL_STATUS ready, " +
                "information_schema.GLOBAL_STATUS part WHERE ready.VARIABLE_NAME = 'WSREP_READY' " +
                "AND part.VARIABLE_NAME = 'WSREP_CLUSTER_STATUS'",
            // What another node has committed is seen here: no stale read after a move.
            init: ["SET SESSION wsrep_sync_wait = 1"],
            // The server's usual comparison takes "Bill 7" and "bill 7" for one.
            marks: "id VARCHAR(100) CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin NOT NULL PRIMARY KEY, " +
                "made TIMESTAMP NOT NULL DEFAULT CURRENT_TIMESTAMP",
            interval: function (seconds) {
                return "NOW() - INTERVAL " + seconds + " SECOND";
            }
        }
    };

    function Cluster(settings) {
        hostFunction("setTimeout");
        hostFunction("clearTimeout");
        this.kind = CLUSTERS.hasOwnProperty(settings.engine) ? CLUSTERS[settings.engine] : null;
        if (!this.kind) {
            throw mistake("engine is \"postgresql\" or \"galera\", not " + settings.engine);
        }
        if (!settings.nodes || !(settings.nodes.length > 0)) {
            throw mistake("nodes is a list of the parameters of each node");
        }
        this.settings = settings;
        this.retry = chosen(RETRY.concat("isolation"), settings);
        makePlan(nothing, nothing, this.retry); // tells at once what is wrong
        this.marks = option(settings, "marks", "vext_marks");
        this.onMove = functionOf(settings.onMove, "onMove");
        this.pingMs = numberOption(settings, "pingMs", 1000, 0);
        this.silenceMs = numberOption(settings, "silenceMs", 3000, 0);
        this.renewMs = numberOption(settings, "renewMs", 5000, 0);
        numberOption(settings, "size", 4, 1); // the pools' own; told now
        this.nodes = [];
        for (var i = 0; i < settings.nodes.length; i++) {
            this.nodes.push(this.nodeOf(settings.nodes[i]));
        }
        this.current = null; // the node that takes writes, with its pool and its watch
        this.last = null;    // the one before it
        this.age = "";       // the latest timeline of a primary
        this.waiting = [];   // who waits for a node that takes writes
        this.looking = false;
        this.users = 0;      // transactions and reads under way
        this.closing = false;
        this.closers = [];   // whom close() tells when all has ended
        this.prefix = "";
        this.counter = 0;
        this.reads = -1;     // where the last read went
        this.counts = { moves: 0, transactions: 0, repeated: 0, retried: 0, failed: 0, reads: 0 };
    }

    // What the node and the settings say of it together.
    function addressOf(parameters) {
        return option(parameters, "hostName", "localhost") +
            (parameters.port === undefined ? "" : ":" + parameters.port);
    }

    Cluster.prototype.nodeOf = function (own) {
        checkOptions(own, "a node of cluster()");
        var shared = chosen(CONNECTION, this.settings, this.kind);
        var parameters = chosen(CONNECTION, own, shared);
        if (/MYSQL_OPT_RECONNECT/.test(parameters.connectOptions)) {
            throw mistake("MYSQL_OPT_RECONNECT loses transactions in silence");
        }
        parameters.size = option(this.settings, "size", undefined);
        parameters.init = this.kind.init.concat(option(this.settings, "init", []));
        if (!/connect_timeout|CONNECT_TIMEOUT/.test(parameters.connectOptions)) {
            parameters.connectOptions += ";" + this.kind.connectOptions;
        }
        parameters.name = own.name || addressOf(parameters);
        return { name: parameters.name, parameters: parameters, pool: null, watch: null, freshAt: 0,
            failedAt: 0, state: "" };
    };

    var SILENCE_STEPS = 10;

    // Calls back with the node's state, "primary" or "replica", or with an error; at the latest
    // after silenceMs, and opens the watch where there is none.
    Cluster.prototype.ask = function (node, callback) {
        var cluster = this, answered = false, timer;

        function answer(error, state) {
            if (!answered) {
                answered = true;
                forget(timer);
                node.state = state || "";
                callback(error, state);
            }
        }

        // Silence is counted in steps. Where the script was busy, or the whole machine stood still, one of
        // them is over at once, and the answer is there before the others are.
        function listen(steps) {
            timer = later(Math.max(2, Math.ceil(cluster.silenceMs / SILENCE_STEPS)), function () {
                if (steps > 1) {
                    listen(steps - 1);
                } else {
                    answer(makeError("lost", node.name + " did not answer within " + cluster.silenceMs + " ms"));
                }
            });
        }

        try {
            if (!node.watch || node.watch.dead || !node.watch.db.isOpen) {
                node.freshAt = now();
                node.watch = openSession(node.parameters, node.name + " watch");
            }
        } catch (error) {
            var refused = error;
        }
        if (refused) {
            timer = later(0, function () {
                answer(refused);
            });
        } else {
            listen(SILENCE_STEPS);
            node.watch.run(this.kind.ready, null, function (error, result) {
                var told = error ? null : one(result, true);
                if (told) {
                    cluster.prefix = cluster.prefix || told.word.split("-").join("");
                    error = cluster.refusalOf(node, told);
                }
                if (!error && !told) {
                    error = makeError("unready", node.name + " is not ready");
                }
                answer(error, error ? "" : told.state);
            });
        }
    };

    // Why a node is not used that has answered; null for one that is.
    Cluster.prototype.refusalOf = function (node, told) {
        if (told.state === "unready") {
            return makeError("unready", node.name + " is not ready");
        }
        if (told.state === "primary" && told.age < this.age) {
            return makeError("unready", node.name + " was the primary before another one was promoted");
        }
        if (told.age > this.age) {
            this.age = told.age;
        }
        return null;
    };

    function dropNode(node, error) {
        var pool = node.pool, watch = node.watch;
        node.pool = null;
        node.watch = null;
        node.state = "";
        if (pool) {
            pool.abandon(error);
        }
        if (watch) {
            watch.abandon(error);
        }
    }

    Cluster.prototype.poolOf = function (node) {
        node.pool = node.pool || new Pool(node.parameters);
        return node.pool;
    };

    // Hands over the node that takes writes, when there is one: callback(error, node).
    Cluster.prototype.primary = function (milliseconds, callback) {
        var cluster = this, waiter = { callback: callback };
        if (this.current) {
            callback(null, this.current);
            return;
        }
        waiter.timer = later(Math.max(1, milliseconds), function () {
            if (take(cluster.waiting, waiter)) {
                callback(makeError("lost", "no node is ready: " + (cluster.why || "none was reached")));
            }
        });
        this.waiting.push(waiter);
        this.look();
    };

    // Asks one node after the other, those that have failed longest ago first.
    Cluster.prototype.look = function () {
        var cluster = this, order = this.nodes.slice(), at = 0, found = false;
        if (this.looking) {
            return;
        }
        this.looking = true;
        order.sort(function (a, b) {
            return a.failedAt - b.failedAt;
        });

        function next() {
            if (cluster.waiting.length === 0) {
                cluster.looking = false; // nobody needs it any more
                return;
            }
            if (at === order.length) {
                cluster.looking = false;
                later(100, function () {
                    if (cluster.waiting.length > 0) {
                        cluster.look();
                    }
                });
                return;
            }
            var node = order[at++];
            cluster.ask(node, function (error, state) {
                if (state === "primary") {
                    cluster.looking = false;
                    cluster.settle(node);
                } else {
                    cluster.why = error ? error.message : node.name + " takes no writes";
                    if (error) {
                        node.failedAt = now();
                        dropNode(node, error);
                    }
                    later(0, next);
                }
            });
        }
        next();
    };

    Cluster.prototype.settle = function (node) {
        var waiting = this.waiting, i;
        this.current = node;
        this.waiting = [];
        if (this.last && this.last !== node) {
            this.counts.moves++;
            apart(this.onMove, [this.last.name, node.name, this.why || ""]);
        }
        this.last = node;
        this.watchOver(node);
        for (i = 0; i < waiting.length; i++) {
            forget(waiting[i].timer);
            waiting[i].callback(null, node);
        }
    };

    // A PostgreSQL server that was told to end (SIGTERM) keeps the sessions that it has until they
    // go by themselves, and answers them as ever; only a new one is told. Other reasons not to get one
    // are none to leave the sessions that work. @return the error, null for a node that stays
    Cluster.prototype.leavingError = function (node) {
        var before = node.watch, fresh;
        if (!this.kind.leaving || now() - node.freshAt < this.renewMs) {
            return null;
        }
        node.freshAt = now();
        try {
            fresh = openSession(node.parameters, node.name + " watch");
        } catch (error) {
            return this.kind.leaving.test(error.message) ? error : null;
        }
        node.watch = fresh;
        if (before) {
            before.abandon(makeError("closed", node.name + " is watched by another connection"));
        }
        return null;
    };

    // While somebody uses the node it is asked how it is: a server that stands still answers
    // nobody, and nothing else would tell.
    Cluster.prototype.watchOver = function (node) {
        var cluster = this;
        if (node.watched) {
            return;
        }
        node.watched = true;
        (function beat() {
            later(cluster.pingMs, function () {
                if (cluster.current !== node || cluster.users === 0) {
                    node.watched = false;
                    return;
                }
                var leaving = cluster.leavingError(node);
                if (leaving) {
                    node.watched = false;
                    cluster.lose(node, leaving);
                    return;
                }
                cluster.ask(node, function (error, state) {
                    if (cluster.current !== node) {
                        node.watched = false;
                    } else if (state === "primary") {
                        beat();
                    } else {
                        node.watched = false;
                        cluster.lose(node, error || makeError("unready", node.name + " takes no writes"));
                    }
                });
            });
        })();
    };

    Cluster.prototype.lose = function (node, error) {
        if (this.current === node) {
            this.current = null;
            this.why = error.message;
        }
        node.failedAt = now();
        dropNode(node, error);
        if (this.waiting.length > 0) {
            this.look();
        }
    };

    function isGone(error) {
        return error && (error.kind === "lost" || error.kind === "unready");
    }

    function isMissingTable(error) {
        return error && /^(42P01|1146)$/.test(error.code);
    }

    Cluster.prototype.leave = function () {
        this.users--;
        this.endWhenDone();
    };

    Cluster.prototype.newId = function () {
        var random = "";
        while (random.length < 12) {
            random += Math.floor(Math.random() * 65536).toString(16);
        }
        return this.prefix + "-" + (++this.counter).toString(36) + "-" + random.slice(0, 12);
    };

    Cluster.prototype.transaction = function (work, done, options) {
        checkMore(options, "transaction()");
        checkFunction(work, "work");
        var cluster = this, plan = makePlan(work, done, chosen(TRANSACTION, options, this.retry));
        plan.mark = this.marks;
        if (this.closing) {
            soon(function (error) {
                plan.done(error, undefined, infoOf(plan));
            }, makeError("closed", "the cluster is closed"));
            return;
        }
        this.users++;
        this.attempt(plan, function (error, repeated) {
            if (error && plan.unresolved) {
                error = unknownOutcome(plan, error);
            }
            cluster.counts[error ? "failed" : "transactions"]++;
            cluster.counts.repeated += repeated ? 1 : 0;
            cluster.leave();
            plan.done(error, error ? undefined : plan.value, infoOf(plan, repeated));
        });
    };

    // A commit may still be under way, and a look would not see its mark. Inserting the mark once more
    // waits for it.
    Cluster.prototype.committed = function (id, callback) {
        var cluster = this, isNew = new Error("the mark is new");
        if (this.closing) {
            soon(callback, makeError("closed", "the cluster is closed"));
            return;
        }
        var plan = makePlan(function (tx, finish) {
            finish(isNew); // takes it back
        }, null, this.retry);
        plan.id = id;
        plan.mark = this.marks;
        this.users++;
        this.attempt(plan, function (error, found) {
            cluster.leave();
            if (error && error !== isNew) {
                callback(error);
            } else {
                callback(null, found === true);
            }
        });
    };

    Cluster.prototype.attempt = function (plan, end) {
        var cluster = this;

        function again(error) {
            if (!backOff(plan, function () {
                cluster.counts.retried++;
                cluster.attempt(plan, end);
            })) {
                end(error);
            }
        }

        this.primary(leftOf(plan), function (nobody, node) {
            if (nobody) {
                end(nobody);
                return;
            }
            plan.id = plan.id || cluster.newId();
            cluster.watchOver(node);
            var pool = cluster.poolOf(node);
            pool.take(function (refused, session) {
                if (refused) {
                    if (isGone(refused)) {
                        if (node.pool === pool) {
                            cluster.lose(node, refused);
                        }
                        again(refused);
                    } else {
                        end(refused);
                    }
                    return;
                }
                runAttempt(plan, session, function (outcome) {
                    pool.give(session, outcome.gone || outcome.broken);
                    cluster.judge(plan, node, outcome, end, again);
                });
            }, Math.max(1, leftOf(plan)));
        });
    };

    // What an attempt's outcome means for the transaction.
    Cluster.prototype.judge = function (plan, node, outcome, end, again) {
        var error = outcome.error, cluster = this;
        if (!error) {
            end(null);
            return;
        }
        if (outcome.phase === "mark" && error.kind === "duplicate") {
            end(null, true); // an earlier attempt has committed
            return;
        }
        var doubtful = isInDoubt(outcome, engineOf(this.kind));
        if (doubtful) {
            plan.unresolved = node;
        } else if (outcome.phase !== "begin" && outcome.phase !== "mark" && this.settles(plan, node)) {
            plan.unresolved = null;
        }
        if (outcome.gone) {
            if (this.current === node && node.pool) {
                this.lose(node, error);
            }
            again(error);
        } else if (error.kind === "conflict" || doubtful && error.kind !== "timeout") {
            again(error);
        } else if (outcome.phase === "mark" && isMissingTable(error) && !plan.noMarks) {
            this.makeMarks(node, function (failed) {
                plan.noMarks = failed && failed.kind === "statement" ? failed : null;
                again(error);
            });
        } else {
            end(outcome.phase === "mark" && isMissingTable(error) ? plan.noMarks : error);
        }
    };

    // Whether a mark that was new on the node tells that no earlier attempt has committed or ever will.
    // A server lets the mark of one that is still under way be waited for; another node of Galera may
    // not have heard of it yet.
    Cluster.prototype.settles = function (plan, node) {
        return plan.unresolved === node || this.settings.engine === "postgresql";
    };

    // Whether it works shows at the next attempt: another script may be making the table as well.
    Cluster.prototype.makeMarks = function (node, callback) {
        this.poolOf(node).query("CREATE TABLE IF NOT EXISTS " + this.marks + " (" + this.kind.marks + ")",
            null, callback);
    };

    // Where the statement may be run again: it only reads.
    function onlyReads(sql) {
        return /^[\s(]*(select|show|values|table|explain|describe|with)\b/i.test(sql) &&
            !/\b(insert|update|delete|merge|replace|into|nextval)\b/i.test(sql);
    }

    // A node for reading: a replica where there is one, and the primary otherwise.
    Cluster.prototype.reader = function (plan, callback) {
        var cluster = this, order = [], count = this.nodes.length;
        for (var i = 1; i <= count; i++) {
            order.push((this.reads + i) % count); // from the node behind the last one on
        }
        (function next() {
            if (order.length === 0) {
                cluster.primary(leftOf(plan), callback);
                return;
            }
            var at = order.shift(), node = cluster.nodes[at];
            if (node === cluster.current && cluster.settings.engine !== "galera" ||
                    now() - node.failedAt < cluster.silenceMs) {
                next();
            } else {
                cluster.ask(node, function (error, state) {
                    if (error) {
                        node.failedAt = now();
                        if (node !== cluster.current) {
                            dropNode(node, error);
                        }
                        next();
                    } else if (state === "replica" || cluster.settings.engine === "galera") {
                        cluster.reads = at;
                        callback(null, node);
                    } else {
                        next();
                    }
                });
            }
        })();
    };

    Cluster.prototype.query = function (sql, values, callback, options) {
        if (typeof values === "function") {
            options = callback;
            callback = values;
            values = null;
        }
        checkMore(options, "query() of a cluster");
        callback = functionOf(callback, "callback");
        if (this.closing) {
            soon(callback, makeError("closed", "the cluster is closed", "", sql));
            return;
        }
        var cluster = this, plan = makePlan(null, null, chosen(RETRY, options, this.retry));
        this.users++;

        function end(error, result) {
            cluster.leave();
            callback(error, result);
        }

        (function again() {
            function run(nobody, node) {
                if (nobody) {
                    end(nobody);
                    return;
                }
                var pool = cluster.poolOf(node), over = false;
                var timer = later(Math.max(1, leftOf(plan)), function () {
                    over = true;
                    end(makeError("timeout", "no answer within " + plan.deadlineMs + " ms", "", sql));
                });
                if (node === cluster.current) {
                    cluster.watchOver(node);
                }
                function hear(error, result, unsent) {
                    forget(timer);
                    if (over) {
                        return;
                    }
                    if (isGone(error) && node.pool === pool) {
                        cluster.lose(node, error);
                    }
                    plan.attempts++;
                    if (!error) {
                        cluster.counts.reads++;
                        end(null, result);
                    } else if (!(isGone(error) || error.kind === "conflict") || !(unsent || onlyReads(sql)) ||
                            !backOff(plan, again)) {
                        end(error);
                    }
                }
                pool.query(sql, values, hear, Math.max(1, leftOf(plan)), function (error) {
                    hear(error, undefined, true);
                });
            }
            if (option(options, "replica", false)) {
                cluster.reader(plan, run);
            } else {
                cluster.primary(leftOf(plan), run);
            }
        })();
    };

    Cluster.prototype.open = function (callback) {
        var cluster = this;
        if (this.closing) {
            soon(callback, makeError("closed", "the cluster is closed"));
            return;
        }
        this.users++;
        later(0, function () {
            cluster.primary(leftOf(makePlan(null, null, cluster.retry)), function (error, node) {
                cluster.leave();
                apart(callback, [error, node && node.name]);
            });
        });
    };

    Cluster.prototype.close = function (done) {
        this.closing = true;
        this.closers.push(functionOf(done, "done"));
        this.endWhenDone();
    };

    Cluster.prototype.endWhenDone = function () {
        if (!this.closing || this.users > 0) {
            return;
        }
        this.current = null;
        for (var i = 0; i < this.nodes.length; i++) {
            dropNode(this.nodes[i], makeError("closed", "the cluster is closed"));
        }
        while (this.closers.length) {
            soon(this.closers.shift(), null);
        }
    };

    function publicCluster(settings) {
        checkOptions(settings, "cluster()");
        var cluster = new Cluster(settings), names = [], i;
        for (i = 0; i < cluster.nodes.length; i++) {
            names.push(cluster.nodes[i].name);
        }
        return {
            nodes: names,
            engine: engineOf(cluster.kind),
            node: function () {
                return cluster.current ? cluster.current.name : "";
            },
            open: function (callback) {
                cluster.open(functionOf(callback, "callback"));
            },
            query: function (sql, values, callback, options) {
                cluster.query(sql, values, callback, options);
            },
            transaction: function (work, done, options) {
                cluster.transaction(work, done, options);
            },
            committed: function (id, callback) {
                checkFunction(callback, "callback");
                cluster.committed(checkedId(id), callback);
            },
            cleanMarks: function (olderThanMs, done) {
                var age = numberOption({ olderThanMs: olderThanMs }, "olderThanMs", undefined, 0);
                done = functionOf(done, "done");
                cluster.query("DELETE FROM " + cluster.marks + " WHERE made < " +
                    cluster.kind.interval(Math.ceil(age / 1000)), null, function (error, result) {
                        if (isMissingTable(error)) {
                            done(null, 0);
                        } else {
                            done(error, error ? undefined : result.numRowsAffected);
                        }
                    });
            },
            stats: function () {
                var stats = { node: this.node(), users: cluster.users };
                for (var name in cluster.counts) {
                    stats[name] = cluster.counts[name];
                }
                return stats;
            },
            close: function (done) {
                cluster.close(done);
            }
        };
    }

    // --- What scripts see ---

    return {
        timers: function (set, clear) {
            handed.setTimeout = set;
            handed.clearTimeout = clear;
        },
        rows: rows,
        each: each,
        one: one,
        filled: function (db, sql, values) {
            return filled(engineOf(db), sql, values);
        },
        pool: publicPool,
        transaction: transaction,
        insertRows: insertRows,
        pages: pages,
        cluster: publicCluster
    };
})(this);
