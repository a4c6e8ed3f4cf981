#!/usr/bin/env python3
"""One workload of ./bench through one library of Python, used as its own documentation shows.

    peer.py NAME version
    peer.py NAME run TARGET-AS-JSON
"""
import json
import resource
import sys
import time


def connect(name, target):
    if name == "sqlite3":
        import sqlite3
        return sqlite3.connect(target["file"])
    import psycopg2
    keys = ("host", "port", "user", "password")
    connection = psycopg2.connect(dbname=target["database"], **{key: target[key] for key in keys})
    connection.autocommit = True
    return connection


def version(name):
    if name == "sqlite3":
        import sqlite3  # noqa: F401  (comes with Python, and bears its version)
        return sys.version.split()[0]
    import psycopg2
    return psycopg2.__version__.split()[0]


def statements(target):
    columns = "select id, part, weight, label, kind, total from big where id "
    if target["reads"]:
        return [columns + "<= " + str(target["rows"])]
    return [columns + "= " + str(i * 37 % 400000 + 1) for i in range(target["count"])]


def run(name, target):
    texts = statements(target)
    cursor = connect(name, target).cursor()
    began = time.perf_counter()
    for text in texts:
        cursor.execute(text)
        rows = cursor.fetchall()
        if len(rows) != (target["rows"] if target["reads"] else 1):
            sys.exit(f"{len(rows)} rows")
    ms = (time.perf_counter() - began) * 1000
    print("measured", ms, ms, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024, 0, 0)


if sys.argv[2] == "version":
    print(version(sys.argv[1]))
else:
    run(sys.argv[1], json.loads(sys.argv[3]))
