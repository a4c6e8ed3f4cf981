// What scripts see of the SQL plugin, for editors and compilers. docs/api.md says what the members
// mean, in the same order, and which options make a compiler write code that the engine takes.

/** A signal of an object. */
interface VextSignal<Handler> {
    connect(handler: Handler): void;
    connect(thisObject: object, handler: Handler | string): void;
    disconnect(handler: Handler): void;
    disconnect(thisObject: object, handler: Handler | string): void;
}

/** What every object of the framework has. */
interface VextObject {
    objectName: string;
    /** The object is about to go. */
    readonly destroyed: VextSignal<() => void>;
    readonly objectNameChanged: VextSignal<(name: string) => void>;
}

/** What every result object has, whatever its columns are. */
interface VextSqlResultProperties {
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
}

/**
 * One result, column by column. Each column is also a property of its own, `result.name[row]`, which
 * the compiler takes from the columns that it was told: `VextSqlResult<{id: number; note: string |
 * null}>`. Without them only `fields_index` has values; `VextSqlResult<any>` lets every name pass,
 * mistyped ones too.
 */
type VextSqlResult<Columns = {}> = VextSqlResultProperties & VextSqlColumns<Columns>;

/** The columns of a result; one that is called like a property of the result is overwritten by it. */
type VextSqlColumns<Columns> = {
    [Name in Exclude<keyof Columns, keyof VextSqlResultProperties>]: Columns[Name][];
};

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

/** What an asynchronous statement says of its failure: false when there was none. */
type VextSqlFailure = string | false;

/**
 * The callback of a task of one statement. `result` is empty of everything when `error` is a text,
 * true or false when there was nothing but transaction words, and false when the task was never run.
 * A callback may name what it expects: `function (result: VextSqlResult<{n: number}>, error) {...}`.
 */
type VextSqlCallback = {
    call(result: VextSqlResult | boolean, error: VextSqlFailure, milliseconds: number,
        ...extra: any[]): void;
}["call"];

/** The callback of a list: the same for each statement; `undefined` is the error of one not run. */
type VextSqlListCallback = {
    call(results: VextSqlResult[] | boolean, errors: (VextSqlFailure | undefined)[] | false,
        milliseconds: number, ...extra: any[]): void;
}["call"];

/** What query_finish tells of one statement or of a list. */
type VextSqlOutcome = VextSqlResult | VextSqlResult[];
type VextSqlFailures = VextSqlFailure | (VextSqlFailure | undefined)[];

/**
 * The handler of query_finish. Look at the last argument first: true means that nothing failed, and
 * tells the compiler which of the two orders it is.
 */
type VextSqlFinishHandler = (...told:
    [result: VextSqlOutcome | boolean, error: VextSqlFailures, milliseconds: number, ok: true] |
    [failed: false, result: VextSqlOutcome, error: VextSqlFailures, milliseconds: number]) => void;

/** The same for a handler that names what it expects. */
type VextSqlFinishListener = {
    call(first: VextSqlOutcome | boolean, second: VextSqlOutcome | VextSqlFailures,
        third: number | VextSqlFailures, fourth: number | true): void;
}["call"];

interface VextDeletableObject extends VextObject {
    /** Deletes the object at the next event; its members raise errors from then on. */
    deleteLater(): void;
}

interface VEXT_SQL extends VextDeletableObject {
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
    readonly query_finish: VextSignal<VextSqlFinishHandler> & VextSignal<VextSqlFinishListener>;
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
    query<Columns = {}>(sql: string): VextSqlResult<Columns> | false;
    /** The same as query(sql). */
    exec<Columns = {}>(sql: string): VextSqlResult<Columns> | false;
    /** A procedure, or on PostgreSQL a statement head, with bound values. */
    exec<Columns = {}>(text: string, values: any[]): VextSqlResult<Columns> | false;
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

    /**
     * Arguments are told apart by their types. `extra` are further arguments for the callback; they
     * come behind the statements.
     */
    query_thread(sql: string, extra?: any[]): boolean;
    query_thread(callback: VextSqlCallback, sql: string, extra?: any[]): boolean;
    query_thread(sql: string, callback: VextSqlCallback, extra?: any[]): boolean;
    query_thread(thisObject: object, callback: VextSqlCallback, sql: string,
        extra?: any[]): boolean;
    query_thread(callback: VextSqlCallback, thisObject: object, sql: string,
        extra?: any[]): boolean;
    query_thread(sql: string, callback: VextSqlCallback, thisObject: object,
        extra?: any[]): boolean;
    query_thread(sql: string, extra: any[], callback: VextSqlCallback,
        thisObject?: object): boolean;
    query_thread(sql: string[], extra?: any[]): boolean;
    query_thread(callback: VextSqlListCallback, sql: string[], extra?: any[]): boolean;
    query_thread(sql: string[], callback: VextSqlListCallback, extra?: any[]): boolean;
    query_thread(thisObject: object, callback: VextSqlListCallback, sql: string[],
        extra?: any[]): boolean;
    query_thread(callback: VextSqlListCallback, thisObject: object, sql: string[],
        extra?: any[]): boolean;
    query_thread(sql: string[], callback: VextSqlListCallback, thisObject: object,
        extra?: any[]): boolean;
    query_thread(sql: string[], extra: any[], callback: VextSqlListCallback,
        thisObject?: object): boolean;
    /** A list of statements takes a list of argument lists, none empty, directly behind it. */
    exec_thread(sql: string, values?: any[], extra?: any[]): boolean;
    exec_thread(callback: VextSqlCallback, sql: string, values?: any[], extra?: any[]): boolean;
    exec_thread(thisObject: object, callback: VextSqlCallback, sql: string, values?: any[],
        extra?: any[]): boolean;
    exec_thread(callback: VextSqlCallback, thisObject: object, sql: string, values?: any[],
        extra?: any[]): boolean;
    exec_thread(sql: string, values: any[], callback: VextSqlCallback, extra?: any[]): boolean;
    exec_thread(sql: string, values: any[], callback: VextSqlCallback, thisObject: object,
        extra?: any[]): boolean;
    exec_thread(sql: string, values: any[], extra: any[], callback: VextSqlCallback,
        thisObject?: object): boolean;
    exec_thread(sql: string, callback: VextSqlCallback, values?: any[], extra?: any[]): boolean;
    exec_thread(sql: string, callback: VextSqlCallback, thisObject: object, values?: any[],
        extra?: any[]): boolean;
    exec_thread(sql: string[], values: any[][], extra?: any[]): boolean;
    exec_thread(callback: VextSqlListCallback, sql: string[], values: any[][],
        extra?: any[]): boolean;
    exec_thread(thisObject: object, callback: VextSqlListCallback, sql: string[],
        values: any[][], extra?: any[]): boolean;
    exec_thread(callback: VextSqlListCallback, thisObject: object, sql: string[],
        values: any[][], extra?: any[]): boolean;
    exec_thread(sql: string[], values: any[][], callback: VextSqlListCallback,
        extra?: any[]): boolean;
    exec_thread(sql: string[], values: any[][], callback: VextSqlListCallback,
        thisObject: object, extra?: any[]): boolean;
    exec_thread(sql: string[], values: any[][], extra: any[], callback: VextSqlListCallback,
        thisObject?: object): boolean;
    /** The same as the global counters(). */
    countersAll(): VextSqlCounters[];
    /** The same value as the global tag. */
    tag: any;
    /** The last synchronous result; undefined when there is none. */
    queryResult: (VextSqlResult & { TABLES?: undefined }) | VextSqlTables | undefined;
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
