// What scripts see of the script library, library/vext.js, for editors and compilers. docs/library.md
// says what it means.

/// <reference path="vext_sql.d.ts" />

/** What became of a statement or a transaction, to decide what to do next. */
type VextErrorKind =
    /** The statement was refused: its text, a constraint, a right. */
    "statement" |
    /** A key that exists. */
    "duplicate" |
    /** A deadlock, a serialization failure, a lock that did not come: worth another attempt. */
    "conflict" |
    /** The connection is gone or could not be opened. */
    "lost" |
    /** The node takes no writes, or none at all. */
    "unready" |
    /** The time was over. */
    "timeout" |
    /** A commit was sent and its answer never came. */
    "unknown" |
    /** The pool or the cluster is closed. */
    "closed";

interface VextError extends Error {
    kind: VextErrorKind;
    /** SQLSTATE or the server's number as a text; "" where there is none. */
    code: string;
    sql: string;
    /** With "unknown": what committed() of a cluster takes. */
    id?: string;
}

/** `error` is null when all went well; a transaction passes on what finish() or `throw` gave. */
type VextDone<Value> = {
    call(error: VextError | null, value: Value): void;
}["call"];

type VextRow = { [column: string]: any };

interface VextConnectionSettings {
    driverName?: string;
    databaseName?: string;
    userName?: string;
    password?: string;
    hostName?: string;
    port?: number;
    connectOptions?: string;
    app_name?: string;
    enableNull?: boolean;
    timeNotUse?: number;
}

interface VextPoolSettings extends VextConnectionSettings {
    driverName: string;
    /** Connections at most; 4. */
    size?: number;
    /** Milliseconds that a statement waits for a connection; 30000. */
    waitMs?: number;
    /** A connection idle for longer is asked whether it lives before it is used; 30000. */
    pingAfterMs?: number;
    /** Name of its connection objects; "pool". */
    name?: string;
    /** Statements for each new connection. */
    init?: string | string[];
}

interface VextPoolStats {
    size: number;
    open: number;
    idle: number;
    busy: number;
    waiting: number;
    opened: number;
    lost: number;
    queries: number;
    failed: number;
    timedOut: number;
    mostWaiting: number;
}

interface VextPool {
    readonly engine: VextEngine;
    query<Columns = {}>(sql: string, callback?: VextDone<VextSqlResult<Columns>>): void;
    query<Columns = {}>(sql: string, values: any[] | null, callback?: VextDone<VextSqlResult<Columns>>): void;
    stats(): VextPoolStats;
    /** Refuses new work, lets the old end, closes, and calls back. */
    close(done?: (error: null) => void): void;
}

type VextEngine = "postgresql" | "mysql" | "sqlite" | "firebird" | "other";

/** One attempt of a transaction. */
interface VextTransaction {
    readonly id: string;
    /** From 1. */
    readonly attempt: number;
    readonly engine: VextEngine;
    /** One statement after the other; the first that fails ends the transaction. */
    query<Columns = {}>(sql: string, callback?: VextDone<VextSqlResult<Columns>>): void;
    query<Columns = {}>(sql: string, values: any[] | null, callback?: VextDone<VextSqlResult<Columns>>): void;
}

interface VextRetryOptions {
    /** Milliseconds for all attempts together; 30000. */
    deadlineMs?: number;
    /** Shortest pause before another attempt; 20. */
    backoffMs?: number;
    /** Longest; 1000. */
    backoffMaxMs?: number;
}

interface VextTransactionOptions extends VextRetryOptions {
    /** "SERIALIZABLE", "REPEATABLE READ"...; PostgreSQL and MariaDB. */
    isolation?: string;
    /** On a cluster: the transaction's own name, for one that must be done once across restarts. 1 to 100
     * characters. */
    id?: string | number;
}

interface VextTransactionInfo {
    readonly id: string;
    readonly attempts: number;
    readonly milliseconds: number;
    /** An earlier attempt had committed. */
    readonly repeated: boolean;
}

/** Runs once for each attempt. */
type VextWork<Value> = (tx: VextTransaction, finish: (error?: any, value?: Value) => void) => void;

type VextTransactionDone<Value> = {
    call(error: any, value: Value | undefined, info: VextTransactionInfo): void;
}["call"];

interface VextInsertOptions extends VextTransactionOptions {
    /** Rows of one statement. */
    chunk?: number;
    /** `total` is undefined when the rows come from a function. */
    onProgress?: (stored: number, total: number | undefined) => void;
}

interface VextPagesRequest {
    /** A SELECT without ORDER BY and LIMIT when there is a key. */
    sql: string;
    values?: any[];
    /** Columns that tell every row apart, or it is an error, and are never NULL. Without: a cursor of PostgreSQL. */
    key?: string | string[];
    /** Rows of a page; 1000. */
    size?: number;
}

interface VextPagesSeen {
    readonly rows: number;
    readonly pages: number;
    readonly stopped: boolean;
}

/** Returning or passing `false` stops. With a second parameter the next page waits for next(). */
type VextOnPage = (page: VextSqlResult<any>, next: (more?: boolean) => void) => any;

/** What the nodes share stands in the settings. */
interface VextNode extends VextConnectionSettings {
    /** "hostName:port". */
    name?: string;
}

/** What the options of a transaction or query say comes first. */
interface VextClusterSettings extends VextConnectionSettings, VextRetryOptions {
    engine: "postgresql" | "galera";
    nodes: VextNode[];
    /** Connections to the node in use at most; 4. */
    size?: number;
    /** Statements for each new connection. */
    init?: string | string[];
    isolation?: string;
    /** The table of marks; "vext_marks". */
    marks?: string;
    /** How often the node in use is asked how it is, while it is used; 1000. */
    pingMs?: number;
    /** A node that has not answered for so long is left; 3000. */
    silenceMs?: number;
    /** PostgreSQL: how often a new session is asked for; 5000. */
    renewMs?: number;
    onMove?: (from: string, to: string, why: string) => void;
}

interface VextClusterStats {
    readonly node: string;
    readonly users: number;
    readonly moves: number;
    readonly transactions: number;
    readonly repeated: number;
    readonly retried: number;
    readonly failed: number;
    readonly reads: number;
}

interface VextReadOptions extends VextRetryOptions {
    /** May be answered by a replica. */
    replica?: boolean;
}

interface VextCluster {
    readonly nodes: string[];
    readonly engine: VextEngine;
    /** The node in use; "" while there is none. */
    node(): string;
    open(callback?: VextDone<string>): void;
    /** Reads, and what could not be sent, are run again after a loss; what changes data belongs into transaction(). */
    query<Columns = {}>(sql: string, callback?: VextDone<VextSqlResult<Columns>>,
        options?: VextReadOptions): void;
    query<Columns = {}>(sql: string, values: any[] | null, callback?: VextDone<VextSqlResult<Columns>>,
        options?: VextReadOptions): void;
    /** Exactly once, whatever becomes of the node. */
    transaction<Value>(work: VextWork<Value>, done?: VextTransactionDone<Value>,
        options?: VextTransactionOptions): void;
    /** Whether the transaction with this id has committed; waits for a commit that is under way. */
    committed(id: string | number, callback: VextDone<boolean>): void;
    /** Deletes the marks older than so many milliseconds; tells how many. */
    cleanMarks(olderThanMs: number, done?: VextDone<number>): void;
    stats(): VextClusterStats;
    close(done?: (error: null) => void): void;
}

/** A name that settings or options do not have is a TypeError. */
interface VextLibrary {
    /** For hosts that have timers under other names. */
    timers(set: (callback: () => void, milliseconds: number) => any, clear: (timer: any) => void): void;
    rows<Row = VextRow>(result: VextSqlResult | false, lowerCase?: boolean): Row[];
    /** `false` from the handler ends it. @returns how many rows it has handled. */
    each<Row = VextRow>(result: VextSqlResult | false, handle: (row: Row, index: number) => any,
        lowerCase?: boolean): number;
    /** The first row; null without one. */
    one<Row = VextRow>(result: VextSqlResult | false, lowerCase?: boolean): Row | null;
    /** The statement with the values written into it in the place of question marks. */
    filled(db: { readonly driverName: string }, sql: string, values: any[]): string;
    pool(settings: VextPoolSettings): VextPool;
    transaction<Value>(target: VEXT_SQL | VextPool | VextCluster, work: VextWork<Value>,
        done?: VextTransactionDone<Value>, options?: VextTransactionOptions): void;
    /** `rows`: a list of lists, or a function that gives the list of each number from 0, then null. */
    insertRows(target: VEXT_SQL | VextPool | VextCluster | VextTransaction, table: string,
        columns: string[], rows: any[][] | ((index: number) => any[] | null | undefined),
        done?: VextTransactionDone<number>, options?: VextInsertOptions): void;
    pages(target: VEXT_SQL | VextPool | VextCluster | VextTransaction, request: VextPagesRequest,
        onPage: VextOnPage, done?: VextDone<VextPagesSeen>): void;
    cluster(settings: VextClusterSettings): VextCluster;
}

/** The script library. */
declare var vext: VextLibrary;
