// How long vext.insertRows takes, and the line that ./bench reads.
//
// arguments: path of the library, settings of the connection as JSON, rows

include(arguments[0]);

var settings = JSON.parse(arguments[1]), count = Number(arguments[2]), rows = [], began;
settings.size = 1;
var pool = vext.pool(settings);

function fail(error) {
    print("error " + error.message);
    quit(1);
}

for (var i = 0; i < count; i++) {
    rows.push([i, "text " + i, i * 0.5]);
}
// The clock starts when the connection is there.
pool.query("SELECT 1", function (error) {
    if (error) {
        fail(error);
        return;
    }
    began = Date.now();
    vext.insertRows(pool, "inserts", ["a", "b", "c"], rows, function (error, stored) {
        var ms = Date.now() - began;
        if (error || stored !== count) {
            fail(error || new Error(stored + " rows stored"));
            return;
        }
        print("measured " + ms + " " + ms + " 0 0 0");
        pool.close(function () { quit(0); });
    });
});
