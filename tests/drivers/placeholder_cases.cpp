#include "placeholder_cases.h"

namespace
{

const char All[] = "*";
const char Postgres[] = "PostgreSQL";
const char Sqlite[] = "SQLite file";
const char MariaDb[] = "MariaDB";
const char Firebird[] = "Firebird";
const char OdbcPostgres[] = "ODBC to PostgreSQL";
const char OdbcSqlite[] = "ODBC to SQLite";

} // namespace

// clang-format off
const std::vector<PlaceholderCase> &placeholderCases()
{
    static const std::vector<PlaceholderCase> cases = {
        // One value and many.
        {All, "question mark", "SELECT note FROM words WHERE id = ?", "[2]", "string:two"},
        {All, "name", "SELECT note FROM words WHERE id = :wanted", "[1]", "string:one"},
        {All, "text with a quote", "SELECT id FROM words WHERE note = ?", "[\"it's\"]", "number:3"},
        {All, "text with a question mark", "SELECT id FROM words WHERE note = ?", "['why?']", "number:4"},
        {All, "text that looks like SQL", "SELECT id FROM words WHERE note = ?", "[\"' OR 1=1 --\"]", ""},
        {All, "two question marks", "SELECT note FROM words WHERE id > ? AND id < ? ORDER BY id", "[1, 4]", "string:two;string:it's"},
        {All, "repeated name takes its value everywhere", "SELECT id FROM words WHERE id = :a OR id = :b OR id + 1 = :a ORDER BY id", "[2, 4]", "number:1;number:2;number:4"},
        {All, "values in order of first appearance", "SELECT id FROM words WHERE note = :zeta AND id = :alpha", "['two', 2]", "number:2"},
        {All, "names differ by case", "SELECT id FROM words WHERE id = :a OR id = :A ORDER BY id", "[1, 3]", "number:1;number:3"},
        {All, "names with digits", "SELECT id FROM words WHERE id = :v1 OR id = :v10 ORDER BY id", "[1, 4]", "number:1;number:4"},
        {All, "names of any script", "SELECT id FROM words WHERE id = :имя OR id = :名前 ORDER BY id", "[2, 3]", "number:2;number:3"},
        {All, "names with underscores", "SELECT id FROM words WHERE id = :first_id", "[1]", "number:1"},
        {All, "in a list of its own", "SELECT id FROM words WHERE id IN (?, ?, ?) ORDER BY id", "[1, 2, 4]", "number:1;number:2;number:4"},
        {All, "behind an operator without blank", "SELECT id FROM words WHERE id=?", "[3]", "number:3"},
        {All, "negative number", "SELECT id FROM words WHERE id > ? ORDER BY id", "[-1]", "number:1;number:2;number:3;number:4"},

        // What only looks like a placeholder.
        {All, "question mark in a string", "SELECT id FROM words WHERE note = 'why?' AND id = ?", "[4]", "number:4"},
        {All, "name in a string", "SELECT id FROM words WHERE note <> ':x' AND id = ?", "[1]", "number:1"},
        {All, "doubled quote in a string", "SELECT id FROM words WHERE note = 'it''s' AND id = ?", "[3]", "number:3"},
        {All, "line comment before", "-- which one?\nSELECT id FROM words WHERE id = ?", "[1]", "number:1"},
        {All, "block comment before", "/* :x or ? */ SELECT id FROM words WHERE id = ?", "[2]", "number:2"},
        {All, "comment within", "SELECT id FROM words /* ? */ WHERE id -- :y\n = ?", "[2]", "number:2"},
        {All, "comment behind", "SELECT id FROM words WHERE id = ? -- why?", "[2]", "number:2"},
        {All, "blanks and line breaks before", "\n\t  SELECT id FROM words WHERE id = ?", "[2]", "number:2"},
        {All, "timing mark behind", "SELECT id FROM words WHERE id = ? --", "[2]", "number:2"},
        {All, "semicolon behind", "SELECT id FROM words WHERE id = ?;", "[2]", "number:2"},
        {All, "quote in a comment", "SELECT id -- it's\nFROM words WHERE id = ?", "[2]", "number:2"},

        // Statement heads.
        {All, "head IN", "SELECT id FROM words WHERE id IN", "[1, 3]", "number:1;number:3"},
        {All, "head IN with the timing mark", "SELECT id FROM words WHERE id IN --", "[1, 3]", "number:1;number:3"},
        {All, "head in lower case", "select id from words where id in", "[4]", "number:4"},
        {All, "head VALUES", "INSERT INTO scratch VALUES", "[1, 'x']", "changed: 1"},
        {All, "head VALUES with columns", "INSERT INTO scratch (note, id) VALUES", "['x', 1]", "changed: 1"},
        {All, "head behind blanks", "  \n INSERT INTO scratch VALUES ", "[1, 'x']", "changed: 1"},
        {All, "head behind a comment", "/* add */ INSERT INTO scratch VALUES", "[1, 'x']", "changed: 1"},
        {All, "head DELETE", "DELETE FROM scratch WHERE id IN", "[7, 8]", "changed: 2"},

        // Changes.
        {All, "update", "UPDATE scratch SET note = ? WHERE id = ?", "['new', 7]", "changed: 1"},
        {All, "update of all with one name", "UPDATE scratch SET note = :n WHERE note <> :n", "['new']", "changed: 2"},
        {All, "delete", "DELETE FROM scratch WHERE id = :id", "[8]", "changed: 1"},
        {All, "insert with a null", "INSERT INTO scratch VALUES (?, ?)", "[1, null]", "changed: 1"},
        {All, "insert of two rows", "INSERT INTO scratch SELECT id, note FROM words WHERE id < ?", "[3]", "changed: 2"},

        // Wrong numbers.
        {All, "one value too few", "SELECT id FROM words WHERE id = ? OR id = ?", "[1]", "error: for 2, but 1"},
        {All, "one value too many", "SELECT id FROM words WHERE id = ?", "[1, 2]", "error: for 1, but 2"},
        {All, "no value", "SELECT id FROM words WHERE id = ?", "[]", "error: for 1, but 0"},
        {All, "no value for names", "UPDATE scratch SET note = :a WHERE id = :b", "[]", "error: for 2, but 0"},
        {All, "one value for a repeated name and another", "SELECT id FROM words WHERE id = :a OR id = :a OR id = :b", "[1]", "error: for 2, but 1"},
        {All, "more values than names", "SELECT id FROM words WHERE id = :a OR id = :a", "[1, 2]", "error: for 1, but 2"},
        {All, "values where none is wanted", "SELECT id FROM words WHERE id = 1", "[1]", "error: for 0, but 1"},

        // PostgreSQL.
        {Postgres, "cast behind", "SELECT ?::int + 1", "[1]", "number:2"},
        {Postgres, "cast behind a name", "SELECT :a::text", "[5]", "string:5"},
        {Postgres, "slice", "SELECT (ARRAY[1,2,3])[1:2] WHERE 1 = ?", "[1]", "string:{1,2}"},
        {Postgres, "dollar quotes", "SELECT $$why? :x$$ WHERE 1 = ?", "[1]", "string:why? :x"},
        {Postgres, "dollar quotes with a tag", "SELECT $t$ $$ ? $t$ WHERE 1 = ?", "[1]", "string: $$ ? "},
        {Postgres, "escaped string", "SELECT E'\\'?' WHERE 1 = ?", "[1]", "string:'?"},
        {Postgres, "escaped string that goes on", "SELECT E'a' -- b\n'\\'?' WHERE 1 = ?", "[1]", "string:a'?"},
        {Postgres, "backslash at the end of a plain string", "SELECT 'a\\' WHERE 1 = ?", "[1]", "string:a\\"},
        {Postgres, "quoted name", "SELECT id AS \"what?\" FROM words WHERE id = ?", "[1]", "number:1"},
        {Postgres, "nested comment", "SELECT /* a /* ? */ ? */ 1 WHERE 1 = ?", "[1]", "number:1"},
        {Postgres, "any of the keys", "SELECT '{\"a\":1}'::jsonb ?| ARRAY['a','b'] WHERE 1 = ?", "[1]", "boolean:true"},
        {Postgres, "all of the keys", "SELECT '{\"a\":1}'::jsonb ?& ARRAY['a','b'] WHERE 1 = ?", "[1]", "boolean:false"},
        {Postgres, "one key by function", "SELECT jsonb_exists('{\"a\":1}', ?)", "['a']", "boolean:true"},
        {Postgres, "key operator without values", "SELECT '{\"a\":1}'::jsonb ? 'a'", "[]", "boolean:true"},
        {Postgres, "key operator with a value", "SELECT '{\"a\":1}'::jsonb ? 'a' WHERE 1 = ?", "[1]", "error: jsonb_exists"},
        {Postgres, "function", "length", "['four']", "number:4"},
        {Postgres, "function of a schema", "pg_catalog.upper", "['a']", "string:A"},
        {Postgres, "suffix behind the values", "INSERT INTO scratch VALUES (?, ?) ON CONFLICT DO NOTHING RETURNING id", "[5, 'x']", "number:5"},
        {Postgres, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*)::int FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {Postgres, "merge", "MERGE INTO scratch s USING (SELECT ?::int AS id) n ON s.id = n.id WHEN MATCHED THEN UPDATE SET note = ?", "[7, 'm']", "changed: 1"},
        {Postgres, "call", "CALL add_scratch(?, ?)", "[11, 'called']", "changed: 0"},
        {Postgres, "values", "VALUES (?::int), (?)", "[1, 2]", "number:1;number:2"},
        {Postgres, "setting", "SET application_name = ?", "[\"it's\"]", "changed: *"},
        {Postgres, "second statement behind", "SELECT id FROM words WHERE id = ?; DELETE FROM words", "[1]", "error: several"},
        {Postgres, "minus before a value", "EXPLAIN SELECT 1 -?", "[-1]", "*"},

        // SQLite.
        {Sqlite, "name in brackets", "SELECT id AS [what?] FROM words WHERE id = ?", "[1]", "number:1"},
        {Sqlite, "name in backticks", "SELECT id AS `what?` FROM words WHERE id = ?", "[1]", "number:1"},
        {Sqlite, "quoted name", "SELECT id AS \"what?\" FROM words WHERE id = ?", "[1]", "number:1"},
        {Sqlite, "json operator", "SELECT '{\"a\":7}' -> '$.a' WHERE 1 = ?", "[1]", "string:7"},
        {Sqlite, "function", "length", "['four']", "number:4"},
        {Sqlite, "suffix behind the values", "INSERT INTO scratch VALUES (?, ?) ON CONFLICT DO NOTHING RETURNING id", "[5, 'x']", "number:5"},
        {Sqlite, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*) FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {Sqlite, "replace", "REPLACE INTO scratch VALUES (?, ?)", "[7, 'r']", "changed: 1"},
        {Sqlite, "second statement behind", "SELECT id FROM words WHERE id = ?; DELETE FROM words", "[1]", "error: several"},

        // MariaDB.
        {MariaDb, "procedure", "note_of", "[2]", "string:two"},
        {MariaDb, "procedure with the timing mark", "note_of --", "[2]", "string:two"},
        {MariaDb, "call", "CALL note_of(?)", "[3]", "string:it's"},
        {MariaDb, "call head", "CALL note_of", "[1]", "string:one"},
        {MariaDb, "call with a wrong number", "CALL note_of(?)", "[1, 2]", "error: for 1, but 2"},
        {MariaDb, "show", "SHOW TABLES LIKE ?", "['words']", "string:words"},
        {MariaDb, "escaped string", "SELECT id FROM words WHERE note <> '\\'?' AND id = ?", "[1]", "number:1"},
        {MariaDb, "string in double quotes", "SELECT id FROM words WHERE note <> \"?\" AND id = ?", "[1]", "number:1"},
        {MariaDb, "name in backticks", "SELECT id AS `what?` FROM words WHERE id = ?", "[1]", "number:1"},
        {MariaDb, "hash comment", "SELECT id # ?\nFROM words WHERE id = ?", "[1]", "number:1"},
        {MariaDb, "executable comment", "SELECT id FROM words WHERE id = /*!50000 ? */", "[1]", "number:1"},
        {MariaDb, "hyphens that are none of a comment", "SELECT 5--?", "[1]", "number:6"},
        {MariaDb, "text as a column", "SELECT ? AS v", "[\"it's\"]", "string:it's"},
        {MariaDb, "long text as a column", "SELECT CONCAT(?, 'b') AS v", "['aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa']", "string:aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab"},
        {MariaDb, "number as a column", "SELECT ? AS v", "[5]", "number:5"},
        {MariaDb, "fraction stays a double", "SELECT ? / 3 AS v", "[0.1]", "number:0.03333333333333333"},
        {MariaDb, "null as a column", "SELECT ? IS NULL AS v", "[null]", "number:1"},
        {MariaDb, "assignment", "SELECT @a := ?", "[5]", "*"},
        {MariaDb, "limit", "SELECT id FROM words ORDER BY id LIMIT ?", "[2]", "number:1;number:2"},
        {MariaDb, "suffix behind the values", "INSERT INTO scratch VALUES (?, ?) ON DUPLICATE KEY UPDATE note = :n", "[7, 'x', 'y']", "changed: 2"},
        {MariaDb, "returning", "INSERT INTO scratch VALUES (?, ?) RETURNING id", "[5, 'x']", "number:5"},
        {MariaDb, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*) FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {MariaDb, "replace", "REPLACE INTO scratch VALUES (?, ?)", "[7, 'r']", "changed: 2"},

        // Firebird.
        {Firebird, "procedure", "note_of", "[2]", "string:two"},
        {Firebird, "procedure with the timing mark", "note_of --", "[2]", "string:two"},
        {Firebird, "procedure with placeholders", "note_of(:id)", "[2]", "string:two"},
        {Firebird, "execute procedure", "EXECUTE PROCEDURE note_of(?)", "[3]", "string:it's"},
        {Firebird, "procedure as a table", "SELECT note FROM notes_from(?) WHERE id < :b", "[3, 4]", "string:it's"},
        {Firebird, "block with variables", "EXECUTE BLOCK (a INTEGER = ?) RETURNS (b INTEGER) AS BEGIN b = :a + 1; SUSPEND; END", "[4]", "number:5"},
        {Firebird, "missing value", "SELECT id FROM words WHERE id = ? OR id = ?", "[1]", "error: for 2, but 1"},
        {Firebird, "alternative quotes", "SELECT q'{it's ?}' FROM words WHERE id = ?", "[1]", "string:it's ?"},
        {Firebird, "quoted name", "SELECT id AS \"what?\" FROM words WHERE id = ?", "[1]", "number:1"},
        {Firebird, "returning", "INSERT INTO scratch VALUES (?, ?) RETURNING id", "[5, 'x']", "number:5"},
        {Firebird, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*) FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {Firebird, "merge", "MERGE INTO scratch s USING (SELECT id FROM words WHERE id = ?) n ON s.id = n.id WHEN NOT MATCHED THEN INSERT VALUES (n.id, ?)", "[1, 'm']", "changed: 1"},
        {Firebird, "update or insert", "UPDATE OR INSERT INTO scratch VALUES (?, ?)", "[7, 'u']", "changed: *"},

        // ODBC.
        {OdbcPostgres, "procedure", "length", "['four']", "number:4"},
        {OdbcPostgres, "call", "{call length(?)}", "['four']", "number:4"},
        {OdbcPostgres, "call with the timing mark", "length --", "['four']", "number:4"},
        {OdbcPostgres, "cast behind", "SELECT ?::int + 1", "[1]", "number:2"},
        {OdbcPostgres, "suffix behind the values", "INSERT INTO scratch VALUES (?, ?) ON CONFLICT DO NOTHING RETURNING id", "[5, 'x']", "number:5"},
        {OdbcPostgres, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*)::int FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {OdbcSqlite, "function", "length", "['four']", "number:4"},
        {OdbcSqlite, "name in brackets", "SELECT id AS [what?] FROM words WHERE id = ?", "[1]", "number:1"},
        {OdbcSqlite, "with", "WITH w AS (SELECT id FROM words WHERE id > ?) SELECT count(*) FROM w WHERE id < :b", "[1, 4]", "number:2"},
        {OdbcSqlite, "replace", "REPLACE INTO scratch VALUES (?, ?)", "[7, 'r']", "changed: 1"},
    };
    return cases;
}
// clang-format on
