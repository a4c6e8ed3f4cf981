// One workload of ./bench through one library of node, used as its own documentation shows.
//
//     node peer.js MODULES NAME version
//     node peer.js MODULES NAME run TARGET-AS-JSON
'use strict';

const path = require('path');
const [modules, name, job, json] = process.argv.slice(2);
const load = (module) => require(path.join(modules, 'node_modules', module));

// Each opens a connection: query(text) for its rows, and close().
const libraries = {
    'pg': async (target) => {
        const client = new (load('pg').Client)(login(target));
        await client.connect();
        return { query: async (text) => (await client.query(text)).rows, close: () => client.end() };
    },
    'postgres': async (target) => {
        const sql = load('postgres')({ ...login(target), max: 1 });
        return { query: (text) => sql.unsafe(text), close: () => sql.end() };
    },
    'better-sqlite3': async (target) => {
        const db = new (load('better-sqlite3'))(target.file);
        return { query: (text) => db.prepare(text).all(), close: () => db.close() };
    },
};

function login(target) {
    const { host, port, database, user, password } = target;
    return { host, port, database, user, password };
}

function statements(target) {
    const columns = 'select id, part, weight, label, kind, total from big where id ';
    if (target.reads) {
        return [columns + '<= ' + target.rows];
    }
    return Array.from({ length: target.count }, (_, i) => columns + '= ' + ((i * 37) % 400000 + 1));
}

async function work(db, target, texts) {
    if (target.queued) {
        await Promise.all(texts.map((text) => db.query(text)));
        return;
    }
    for (const text of texts) {
        const rows = await db.query(text);
        if (rows.length !== (target.reads ? target.rows : 1)) {
            throw new Error(rows.length + ' rows');
        }
    }
}

async function main() {
    if (job === 'version') {
        load(name);
        console.log(load(name + '/package.json').version);
        return;
    }
    const target = JSON.parse(json);
    const texts = statements(target);
    const db = await libraries[name](target);
    await db.query('select 1'); // the clock starts when the connection is there
    let longest = 0, last = performance.now();
    const tick = () => {
        const now = performance.now();
        longest = Math.max(longest, now - last);
        last = now;
    };
    const timer = setInterval(tick, 1);
    const began = performance.now();
    await work(db, target, texts);
    const ms = performance.now() - began;
    tick();
    clearInterval(timer);
    await db.close();
    console.log('measured', ms, longest, process.resourceUsage().maxRSS / 1024, 0, 0);
}

main().catch((error) => {
    console.error(error.message.split('\n')[0]);
    process.exit(1);
});
