// One process with many connections: how many tasks a second they do. Started by vext-scale, which
// reads the lines it prints and measures the processor time and memory of both sides in between.
//
// arguments: path of the library, settings as JSON, connections, seconds

include(arguments[0]);

var settings = JSON.parse(arguments[1]), connections = Number(arguments[2]), seconds = Number(arguments[3]);
settings.size = connections;
var target = settings.engine ? vext.cluster(settings) : vext.pool(settings);
var measured = 0, opened = 0, counting = false, over = false, running = connections;

function fail(error) {
    print("error " + error.message);
    quit(1);
}

function work() {
    target.query("SELECT 1", function (error) {
        if (error) {
            fail(error);
        }
        measured += counting ? 1 : 0;
        if (!over) {
            work();
        } else if (--running === 0) {
            target.close(function () { quit(0); });
        }
    });
}

for (var i = 0; i < connections; i++) {
    work();
}
// All connections are there after the first round; what comes before is their opening.
setTimeout(function () {
    counting = true;
    print("begin");
    setTimeout(function () {
        counting = false;
        over = true;
        print("end " + measured);
    }, seconds * 1000);
}, 1000 + connections * 20);
