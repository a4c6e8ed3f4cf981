// The globals that vext-run gives to its scripts, for editors and compilers, with those of the SQL
// plugin. docs/hosts.md says what they mean; docs/api.md what scripts may be written in, and which
// options a compiler needs: the library "ES5" and no other, because a browser's has globals of the
// same names.

/// <reference path="vext_sql.d.ts" />

/** The arguments of the script, without its name. */
declare var arguments: string[];

/** Writes its arguments to standard output, with blanks between them. */
declare function print(...values: any[]): void;

/**
 * Writes its arguments without a line break. A text that begins with "\r" takes the place of the
 * line before it; where standard output is no terminal it is left out.
 */
declare function write(...values: any[]): void;

/** The absolute path of the script; empty for code without a file. */
declare var scriptFile: string;

/**
 * Runs a script file in the global scope, once however often it is included. The path is relative
 * to the including file, for code without a file to the working directory. The script library that
 * comes with the program is found by its bare name: include("vext").
 */
declare function include(path: string): void;

/** A byte array: a blob in a result, or what bytes() and readFile() make. It can be bound. */
interface VextBytes {
    readonly length: number;
    /** The byte at this place, undefined where there is none. */
    get(index: number): number | undefined;
    /** A part; negative places count from the end. */
    slice(begin?: number, end?: number): VextBytes;
    toHex(): string;
    toBase64(): string;
    /** Throws when the bytes are not UTF-8. */
    toText(): string;
    /** "0x" and hexadecimal digits, as it is printed. */
    toJSON(): string;
}

/** Bytes from a text: as it is in UTF-8, or of hexadecimal or base64 digits. */
declare function bytes(text: string, form?: "text" | "hex" | "base64"): VextBytes;

/** The content of a file. Throws when it is not text in UTF-8. */
declare function readFile(path: string): string;
/** The content of a file as it is. */
declare function readFile(path: string, form: "bytes"): VextBytes;
/** Replaces a file as a whole, or leaves it as it was and throws. */
declare function writeFile(path: string, content: string | VextBytes): void;
/** Adds to the end of a file, and makes it where there is none. */
declare function appendFile(path: string, content: string | VextBytes): void;

/**
 * Calls back for each line, numbered from 1, until there is none or the function returns false.
 * @returns the number of lines read.
 */
declare function readLines(path: string,
    callback: (line: string, number: number) => boolean | void): number;

declare function exists(path: string): boolean;
/** The names of the files in a folder, sorted; the pattern is one as "*.csv". */
declare function listFiles(folder: string, pattern?: string): string[];
/** A variable of the environment, undefined where there is none. */
declare function env(name: string): string | undefined;

/** Standard input. What is read in one way is gone for the others. */
interface VextStandardInput {
    readonly isTerminal: boolean;
    /** The next line, null at the end. */
    readLine(): string | null;
    /** As the function readLines(). */
    readLines(callback: (line: string, number: number) => boolean | void): number;
    /** All that is left. */
    read(): string;
    read(form: "bytes"): VextBytes;
}

declare var stdin: VextStandardInput;

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
    /** To standard output: result objects and arrays of objects as tables, anything else as text. */
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
