// What scripts see of the SQL plugin, for editors. The scripts themselves are plain ECMAScript 5.
// Names and order are those of docs/api.md, which says what they mean.

/** A signal of a connection object. */
interface VextSignal<Handler> {
    connect(handler: Handler): void;
    connect(thisObject: object, handler: Handler | string): void;
    disconnect(handler: Handler): void;
    disconnect(thisObject: object, handler: Handler | string): void;
}

/** One result, column by column. Each column is also a property of its own: `result.name[row]`. */
interface VextSqlResult {
    /** The mark of a result object: 1106. Hidden. */
    readonly "$ res sql": number;
    /** Number of columns; 0 for a statement without rows. */
    fields: number;
    numRowsAffected: number;
    /** null where the driver is never asked, undefined where there is none. */
    lastInsertId: any;
    executedQuery: string;
    rows: number;
    /** The same as rows. */
    length: number;
    fields_names: string[];
    /** The values by column and row. */
    fields_index: any[][];
    /** For each column the numbers of the rows that are NULL. */
    fields_nulls: number[][];
    /** Qt's type numbers. */
    fields_types: number[];
    fields_typeN: string[];
    [column: string]: any;
}

/** What tables() leaves in queryResult. */
interface VextSqlTables {
    readonly TABLES: string[];
    readonly rows: number;
    readonly fields: 1;
    readonly numRowsAffected: 0;
}

interface VextSqlError {
    databaseText: string;
    driverText: string;
    isValid: 0 | 1;
    /** Native code; 0 where it is not a number, -1 where there is none. */
    number: number;
    text: string;
    /** 0 none, 1 connection, 2 statement, 3 transaction, 4 unknown. */
    type: number;
    /** "NoError", "ConnectionError)", "StatementError", "TransactionError", "UnknownError". */
    typeStr: string;
}

interface VextSqlCounters {
    /** Only with an engine, as in counters(). */
    readonly postName?: string;
    readonly connectionName: string;
    readonly is_opened: 0 | 1;
    readonly cnt_open: number;
    readonly cnt_opened: number;
    readonly cnt_closed: number;
    readonly cnt_sql_ok: number;
    readonly cnt_sql_er: number;
    readonly driver: string;
    readonly database: string;
    readonly user: string;
    readonly host: string;
    /** Only with an engine, as in counters(). */
    readonly subscribeEvents?: string[];
    readonly dbObjectName: string;
    /** Only while the worker thread runs, as the next three. */
    readonly thr_sql_queue?: number;
    readonly thr_sql_finish?: number;
    readonly thr_notUsedMs?: number;
    readonly thr_sql_currMs?: number;
}

interface VextSqlFeatures {
    BLOB: boolean;
    BatchOperations: boolean;
    CancelQuery: boolean;
    EventNotifications: boolean;
    FinishQuery: boolean;
    LastInsertId: boolean;
    LowPrecisionNumbers: boolean;
    MultipleResultSets: boolean;
    NamedPlaceholders: boolean;
    PositionalPlaceholders: boolean;
    PreparedQueries: boolean;
    QuerySize: boolean;
    SimpleLocking: boolean;
    Transactions: boolean;
    Unicode: boolean;
}

/**
 * The callback of a task. For one statement `result` is its result object (empty when it failed) and
 * `error` false or the text; for a list both are arrays. `result` is a boolean when there was nothing
 * but transaction words, and false when the task was never run.
 */
type VextSqlCallback = (result: any, error: any, milliseconds: number, ...extra: any[]) => void;

/** (result, error, milliseconds, true), or after a failure (false, result, error, milliseconds). */
type VextSqlFinishHandler = (first: any, second: any, third: any, fourth: number | true) => void;

interface VEXT_SQL {
    objectName: string;
    traceLog: boolean;
    readonly affectedRows: number;
    readonly drivers: string[];
    app_name: string;
    driverName: string;
    databaseName: string;
    userName: string;
    password: string;
    hostName: string;
    /** Used when above 0. */
    port: number;
    connectOptions: string;
    /** A TypeError when assigned while open. */
    connectionName: string;
    /** Milliseconds, at least 60000. */
    timeNotUse: number;
    enableNull: boolean;
    readonly isValid: boolean;
    readonly isOpen: boolean;
    readonly isRunning: boolean;
    readonly isOpenError: boolean;
    readonly lastQuery: string;
    readonly lastError: string;
    readonly lastErrors: VextSqlError;
    readonly isSupportEvent: boolean;
    readonly events: string[];

    disableTraceLog(): void;
    enableTraceLog(on?: boolean): void;

    readonly started: VextSignal<() => void>;
    readonly finished: VextSignal<() => void>;
    readonly opened: VextSignal<() => void>;
    readonly closed: VextSignal<() => void>;
    readonly query_finish: VextSignal<VextSqlFinishHandler>;
    readonly event: VextSignal<(name: string, payload: any, source: number) => void>;

    taskSize(): number;
    add_event(name: string): boolean;
    rem_event(name: string): boolean;
    /** False while closed. */
    isDriverAvailable(name: string): boolean;
    transaction(): boolean;
    commit(): boolean;
    rollback(): boolean;
    open(): boolean;
    close(): boolean;
    query(sql: string): VextSqlResult | false;
    /** The same as query(sql). */
    exec(sql: string): VextSqlResult | false;
    /** A procedure, or on PostgreSQL a statement head, with bound values. */
    exec(text: string, values: any[]): VextSqlResult | false;
    start_thread(): boolean;
    /** Waits up to `ms` milliseconds, 1000 by default. */
    stop_thread(ms?: number): void;
    /** 1 tables, 2 system tables, 4 views, 255 all; into queryResult.TABLES. */
    tables(type?: number): boolean;
    clear(): void;
    clearSqlResult(): void;
    hasFeature(): VextSqlFeatures;
    counters(engine?: object): VextSqlCounters;
    setCodec(name: string): void;

    /** Arguments are told apart by their types; these are the usual orders. */
    query_thread(sql: string | string[], extra?: any[]): boolean;
    query_thread(callback: VextSqlCallback, sql: string | string[], extra?: any[]): boolean;
    query_thread(sql: string | string[], callback: VextSqlCallback, extra?: any[]): boolean;
    query_thread(thisObject: object, callback: VextSqlCallback, sql: string | string[],
        extra?: any[]): boolean;
    /** A list of statements takes a list of argument lists, none of them empty. */
    exec_thread(sql: string, values?: any[], extra?: any[]): boolean;
    exec_thread(sql: string[], values: any[][], extra?: any[]): boolean;
    exec_thread(callback: VextSqlCallback, sql: string, values?: any[], extra?: any[]): boolean;
    exec_thread(callback: VextSqlCallback, sql: string[], values: any[][], extra?: any[]): boolean;
    exec_thread(thisObject: object, callback: VextSqlCallback, sql: string, values?: any[],
        extra?: any[]): boolean;
    exec_thread(thisObject: object, callback: VextSqlCallback, sql: string[], values: any[][],
        extra?: any[]): boolean;
    /** The same as the global counters(). */
    countersAll(): VextSqlCounters[];
    /** The same value as the global tag. */
    tag: any;
    /** The last synchronous result; undefined when there is none. */
    queryResult: VextSqlResult | VextSqlTables | undefined;
}

interface VEXT_SQLConstructor {
    new (name?: string): VEXT_SQL;
    (name?: string): VEXT_SQL;
}

declare var VEXT_SQL: VEXT_SQLConstructor;

/** The statistics of every live connection object of the process. */
declare function counters(): VextSqlCounters[];

/** One value for all scripts of the process. */
declare var tag: any;
