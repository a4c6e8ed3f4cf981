// The globals that vext-run gives to its scripts, for editors and compilers, with those of the SQL
// plugin. docs/hosts.md says what they mean; docs/api.md what scripts may be written in, and which
// options a compiler needs: the library "ES5" and no other, because a browser's has globals of the
// same names.

/// <reference path="vext_sql.d.ts" />

/** The arguments of the script, without its name. */
declare var arguments: string[];

/** Writes its arguments to standard output, with blanks between them. */
declare function print(...values: any[]): void;

/** Ends the program with this exit code, 0 by default, modulo 256. Nothing behind it runs. */
declare function quit(code?: number): never;

interface VextConsole {
    /** To standard output. */
    log(...values: any[]): void;
    /** To standard output. */
    info(...values: any[]): void;
    /** To standard error. */
    warn(...values: any[]): void;
    /** To standard error. */
    error(...values: any[]): void;
    /** To standard output: result objects as tables, anything else as text. */
    table(...values: any[]): void;
}

declare var console: VextConsole;

/** Calls back once after so many milliseconds, with the further arguments. @returns its number. */
declare function setTimeout(callback: (...values: any[]) => void, milliseconds?: number,
    ...values: any[]): number;
/** Calls back again and again. @returns its number. */
declare function setInterval(callback: (...values: any[]) => void, milliseconds?: number,
    ...values: any[]): number;
declare function clearTimeout(timer: number | undefined): void;
declare function clearInterval(timer: number | undefined): void;

/** Collects what nothing refers to any more. */
declare function gc(): void;

/** The version of the engine: 1. */
declare function version(): number;

/** The host's object for the whole process. */
interface VextServerObject extends VextObject {
    readonly gui: boolean;
    /** Ports that script objects hold open. */
    readonly tcpPorts: number[];
    readonly udpPorts: number[];
    isGuiApp(): 0 | 1;
}

declare const server: VextServerObject;

/** The host's object for one script. */
interface VextPostObject extends VextObject {
    /** The folder of the script. */
    getPostDir(): string;
}

declare const post: VextPostObject;

/** The engine that runs the script; counters() of a connection object takes it. */
interface VextScriptEngine extends VextObject {
    /** The running script. */
    readonly file: { readonly name: string; readonly dir: string };
}

declare const scriptEngine: VextScriptEngine;
