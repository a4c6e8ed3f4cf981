// TypeScript that is compiled with the options of the reference page, and then run by vext-run.

interface Totals {
    default: number;
    class?: string;
}

enum Size { Small = 1, Large }

namespace Words {
    export const greeting = "hello";
}

abstract class Named {
    static count = 0;
    constructor(protected readonly name: string) {
        Named.count++;
    }
    abstract delete(): string;
    describe = () => `${this.name} of ${Named.count}`;
}

class Base extends Named {
    delete() {
        return `${this.name} deleted`;
    }
}

// Reserved words as names of properties, which the engine takes only between quotes.
const totals: Totals = { default: 1, class: "first" };
const { default: first, ...rest } = totals;
print(totals.default, first, rest.class);

const base = new Base("base");
print(base.describe(), base.delete(), base instanceof Named);
print(Size[Size.Large], Words.greeting, totals?.class ?? "none", 2 ** 5);
let list = [...[1, 2], 3];
for (const n of list) {
    setTimeout((...all: number[]) => print(all.length, n), 0, n, n);
}
function tagged(parts: TemplateStringsArray, ...values: number[]) {
    return parts.join("|") + values.join();
}
print(tagged`a${1}b${2}c`);

const db = new VEXT_SQL("compiled");
db.driverName = "QSQLITE";
db.databaseName = ":memory:";
if (!db.open()) {
    quit(1);
}
const result = db.query<{ n: number }>("SELECT 1 AS n UNION SELECT 2");
if (result) {
    print(result.n.map(n => n * 2).join(), result.rows);
}
db.query_thread("SELECT 1", (outcome, error) => {
    print(error, typeof outcome === "boolean" ? outcome : outcome.rows);
    db.deleteLater();
});
