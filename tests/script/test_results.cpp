/// @file
/// Result objects: their shape, what fills them, and how long they last.
#include "script_test.h"

#include <QScriptValueIterator>

Q_DECLARE_METATYPE(QSqlDriver::DbmsType)

namespace
{

const QVector<StubReply::Column> idAndName{{QStringLiteral("id"), QVariant::Int},
                                           {QStringLiteral("name"), QVariant::String}};

/// Two rows; the second name is NULL.
StubReply twoRows()
{
    return StubReply::table(idAndName, {{1, QStringLiteral("a")}, {2, QVariant(QVariant::String)}});
}

/// Names and flags of all properties of an object, hidden ones too, in their order.
QStringList propertiesOf(const QScriptValue &object)
{
    QStringList found;
    QScriptValueIterator it(object);
    while (it.hasNext()) {
        it.next();
        found.append(QStringLiteral("%1 %2").arg(it.name()).arg(int(it.flags())));
    }
    return found;
}

const QStringList fixedProperties{
    QStringLiteral("fields 0"),       QStringLiteral("numRowsAffected 0"),
    QStringLiteral("lastInsertId 0"), QStringLiteral("executedQuery 0"),
    QStringLiteral("rows 0"),         QStringLiteral("length 0"),
    QStringLiteral("fields_names 0"), QStringLiteral("fields_index 0"),
    QStringLiteral("fields_nulls 0"), QStringLiteral("fields_types 0"),
    QStringLiteral("fields_typeN 0")};

} // namespace

class TestResults : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    // shape
    void propertiesComeInTheirOrder();
    void propertiesOfAThreadedResultComeInTheSameOrder();
    void markerIsHiddenAndFixed();
    void scriptMayChangeItsResult();
    void resultIsLaidOutByColumn();
    void statementWithoutColumnsHasEmptyArrays();
    void columnsWithoutRowsHaveNoType();
    void hundredColumnsKeepTheirOrder();

    // names
    void namesAreUpperCasedOnPostgres();
    void namesAreUpperCasedOnOdbcForPostgres();
    void namesAreKeptOnOtherSystems_data();
    void namesAreKeptOnOtherSystems();
    void laterColumnOfTheSameNameReplaces();
    void namesThatMeetInUpperCaseReplace();
    void columnNamedAsAPropertyIsOverwritten_data();
    void columnNamedAsAPropertyIsOverwritten();
    void columnNamedAsTheMarkerCannotReplaceIt();
    void oddColumnNames_data();
    void oddColumnNames();
    void columnNamedProtoDoesNoHarm();

    // types and nulls
    void columnOfNullsOnlyHasNoType();
    void lastDifferingTypeNamesTheColumn();
    void nullsDoNotChangeTheType();
    void typeNamesAreThoseOfVariants();
    void nullsAreRowNumbers();
    void sqliteReportsTypesOfItsValues();

    // counts and ids
    void affectedRowsKnownOnlyAfterTheRows();
    void negativeAffectedRowsAreZero();
    void lastInsertIdFollowsTheSystem_data();
    void lastInsertIdFollowsTheSystem();
    void lastInsertIdKeepsItsType_data();
    void lastInsertIdKeepsItsType();
    void lastInsertIdIsReadOnceAndAfterTheRows();
    void sqliteTellsTheInsertedId();
    void executedQueryIsTheDriversText();
    void rowsAreNotAskedForWithoutColumns();

    // errors while rows are read
    void partialResultIsAnError();
    void partialResultIsAnErrorThroughExec();
    void partialResultIsDeliveredAsItsError();
    void connectionLostWhileReadingCloses();
    void sqliteFailsInTheMiddle();

    // cancelled read
    void stopCancelsTheReading_data();
    void stopCancelsTheReading();
    void stopRequestDoesNotTouchASynchronousRead();
    void sqliteReadIsCancelled_data();
    void sqliteReadIsCancelled();
    void readThatTheDriverEndsIsCancelled();
    void readThatTheStopMeetsIsNoLostConnection();

    // how long a result lasts
    void queryResultIsTheLastResult();
    void nextCallEmptiesTheResult_data();
    void nextCallEmptiesTheResult();
    void threadedResultsLeaveQueryResultAlone();
    void deletedQueryResultIsMadeAgain();
    void emptiedResultKeepsItsArrays();
};

// --- shape ---

void TestResults::propertiesComeInTheirOrder()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    const QStringList own{"$ res sql 7"_qs, "id 0"_qs, "name 0"_qs};
    QCOMPARE(propertiesOf(eval("db.query('q')"_qs)), own + fixedProperties);
    QCOMPARE(text("var names = []; for (var n in db.queryResult) names.push(n); names.join()"_qs),
             "id,name,fields,numRowsAffected,lastInsertId,executedQuery,rows,length,fields_names,"
             "fields_index,fields_nulls,fields_types,fields_typeN"_qs);
}

void TestResults::propertiesOfAThreadedResultComeInTheSameOrder()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    recordAnswers();
    QVERIFY(truth("db.query_thread(record, 'q')"_qs));
    QVERIFY(waitForAnswers(1));
    const QStringList own{"$ res sql 7"_qs, "id 0"_qs, "name 0"_qs};
    QCOMPARE(propertiesOf(eval("answers[0][0]"_qs)), own + fixedProperties);
}

void TestResults::markerIsHiddenAndFixed()
{
    openStub("STUB"_qs);
    eval("var r = db.query('q'); r['$ res sql'] = 5; var gone = delete r['$ res sql'];"
         "var seen = false; for (var n in r) seen = seen || n === '$ res sql';"_qs);
    QCOMPARE(json("[r['$ res sql'], gone, seen]"_qs), "[1106,false,false]"_qs);
    QVERIFY(truth("JSON.stringify(r).indexOf('res sql') === -1"_qs));
}

void TestResults::scriptMayChangeItsResult()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    eval("var r = db.query('q'); r.rows = 9; delete r.length; r.own = 1; r.id[0] = 5;"_qs);
    QCOMPARE(json("[r.rows, r.length, r.own, r.fields_index[0]]"_qs), "[9,null,1,[5,2]]"_qs);
}

void TestResults::resultIsLaidOutByColumn()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().withAffected(4).withLastInsertId(9));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.id, r.name, r.fields, r.numRowsAffected, r.lastInsertId, r.executedQuery,"
                  "r.rows, r.length]"_qs),
             "[[1,2],[\"a\",null],2,4,9,\"q\",2,2]"_qs);
    QCOMPARE(json("[r.fields_names, r.fields_index, r.fields_nulls, r.fields_types,"
                  "r.fields_typeN]"_qs),
             "[[\"id\",\"name\"],[[1,2],[\"a\",null]],[[],[1]],[2,10],[\"int\",\"QString\"]]"_qs);
    QVERIFY(truth("r.fields_index[0] === r.id && r.fields_index[1] === r.name"_qs));
}

void TestResults::statementWithoutColumnsHasEmptyArrays()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(3));
    const QScriptValue result = eval("var r = db.query('q'); r"_qs);
    QCOMPARE(propertiesOf(result), QStringList{"$ res sql 7"_qs} + fixedProperties);
    QCOMPARE(json("[r.fields, r.rows, r.length, r.numRowsAffected, r.fields_names, r.fields_index,"
                  "r.fields_nulls, r.fields_types, r.fields_typeN]"_qs),
             "[0,0,0,3,[],[],[],[],[]]"_qs);
}

void TestResults::columnsWithoutRowsHaveNoType()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::table(idAndName));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields, r.rows, r.length, r.fields_names, r.fields_index, r.fields_nulls,"
                  "r.fields_types, r.id]"_qs),
             "[2,0,0,[\"id\",\"name\"],[[],[]],[[],[]],[0,0],[]]"_qs);
    QCOMPARE(json("r.fields_typeN"_qs), "[\"\",\"\"]"_qs);
}

void TestResults::hundredColumnsKeepTheirOrder()
{
    QVector<StubReply::Column> columns;
    QVariantList row;
    for (int i = 0; i < 100; ++i) {
        columns.append({"c%1"_qs.arg(i), QVariant::Int});
        row.append(i * 3);
    }
    openStub("STUB"_qs).setDefaultReply(StubReply::table(columns, {row}));
    eval("var r = db.query('q'), good = true;"
         "for (var i = 0; i < 100; ++i) good = good && r.fields_names[i] === 'c' + i"
         "    && r['c' + i][0] === i * 3 && r.fields_index[i] === r['c' + i];"_qs);
    QVERIFY(truth("good && r.fields === 100 && r.fields_index.length === 100"_qs));
}

// --- names ---

void TestResults::namesAreUpperCasedOnPostgres()
{
    openStub("QPSQL"_qs)
        .setDefaultReply(
            StubReply::table({{"id"_qs, QVariant::Int}, {"имя_Full"_qs, QVariant::Int}}, {{1, 2}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_names, r.ID, r['ИМЯ_FULL'], r.id]"_qs),
             "[[\"ID\",\"ИМЯ_FULL\"],[1],[2],null]"_qs);
}

void TestResults::namesAreUpperCasedOnOdbcForPostgres()
{
    openStub("QODBC"_qs, QSqlDriver::PostgreSQL)
        .setDefaultReply(StubReply::table({{"id"_qs, QVariant::Int}}, {{1}}));
    QCOMPARE(json("db.query('q').fields_names"_qs), "[\"ID\"]"_qs);
}

void TestResults::namesAreKeptOnOtherSystems_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QSqlDriver::DbmsType>("dbms");
    QTest::newRow("unknown driver of a PostgreSQL system") << "STUB"_qs << QSqlDriver::PostgreSQL;
    QTest::newRow("MySQL") << "QMYSQL"_qs << QSqlDriver::MySqlServer;
    QTest::newRow("Firebird") << "QIBASE"_qs << QSqlDriver::Interbase;
    QTest::newRow("ODBC for SQL Server") << "QODBC"_qs << QSqlDriver::MSSqlServer;
    QTest::newRow("ODBC for an unknown system") << "QODBC"_qs << QSqlDriver::UnknownDbms;
}

void TestResults::namesAreKeptOnOtherSystems()
{
    QFETCH(QString, driver);
    QFETCH(QSqlDriver::DbmsType, dbms);
    openStub(driver, dbms).setDefaultReply(StubReply::table({{"iD"_qs, QVariant::Int}}, {{1}}));
    QCOMPARE(json("[db.query('q').fields_names, db.queryResult.iD]"_qs), "[[\"iD\"],[1]]"_qs);
}

void TestResults::laterColumnOfTheSameNameReplaces()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::table(
        {{"a"_qs, QVariant::Int}, {"b"_qs, QVariant::Int}, {"a"_qs, QVariant::Int}}, {{1, 2, 3}}));
    const QScriptValue result = eval("var r = db.query('q'); r"_qs);
    QCOMPARE(json("[r.a, r.fields, r.fields_names, r.fields_index]"_qs),
             "[[3],3,[\"a\",\"b\",\"a\"],[[1],[2],[3]]]"_qs);
    QVERIFY(truth("r.a === r.fields_index[2]"_qs));
    QCOMPARE(propertiesOf(result).mid(0, 4),
             (QStringList{"$ res sql 7"_qs, "a 0"_qs, "b 0"_qs, "fields 0"_qs}));
}

void TestResults::namesThatMeetInUpperCaseReplace()
{
    openStub("QPSQL"_qs)
        .setDefaultReply(
            StubReply::table({{"a"_qs, QVariant::Int}, {"A"_qs, QVariant::Int}}, {{1, 2}}));
    QCOMPARE(json("[db.query('q').A, db.queryResult.fields_names, db.queryResult.fields_index]"_qs),
             "[[2],[\"A\",\"A\"],[[1],[2]]]"_qs);
}

void TestResults::columnNamedAsAPropertyIsOverwritten_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");
    QTest::newRow("fields") << "fields"_qs
                            << "1"_qs;
    QTest::newRow("numRowsAffected") << "numRowsAffected"_qs
                                     << "4"_qs;
    QTest::newRow("lastInsertId") << "lastInsertId"_qs
                                  << "9"_qs;
    QTest::newRow("executedQuery") << "executedQuery"_qs
                                   << "\"q\""_qs;
    QTest::newRow("rows") << "rows"_qs
                          << "2"_qs;
    QTest::newRow("length") << "length"_qs
                            << "2"_qs;
    QTest::newRow("fields_names") << "fields_names"_qs
                                  << "[\"fields_names\"]"_qs;
    QTest::newRow("fields_index") << "fields_index"_qs
                                  << "[[5,6]]"_qs;
    QTest::newRow("fields_nulls") << "fields_nulls"_qs
                                  << "[[]]"_qs;
    QTest::newRow("fields_types") << "fields_types"_qs
                                  << "[2]"_qs;
    QTest::newRow("fields_typeN") << "fields_typeN"_qs
                                  << "[\"int\"]"_qs;
}

void TestResults::columnNamedAsAPropertyIsOverwritten()
{
    QFETCH(QString, name);
    QFETCH(QString, value);
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{name, QVariant::Int}}, {{5}, {6}}).withAffected(4).withLastInsertId(9));
    QCOMPARE(json("db.query('q').%1"_qs.arg(name)), value);
    QCOMPARE(json("db.queryResult.fields_index[0]"_qs), "[5,6]"_qs);
}

void TestResults::columnNamedAsTheMarkerCannotReplaceIt()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::table({{"$ res sql"_qs, QVariant::Int}}, {{5}}));
    QCOMPARE(json("[db.query('q')['$ res sql'], db.queryResult.fields_names,"
                  "db.queryResult.fields_index]"_qs),
             "[1106,[\"$ res sql\"],[[5]]]"_qs);
}

void TestResults::oddColumnNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("literal");
    QTest::newRow("empty") << ""_qs
                           << "''"_qs;
    QTest::newRow("NUL") << "a\0b"_qs
                         << "'a\\0b'"_qs;
    QTest::newRow("number") << "0"_qs
                            << "'0'"_qs;
    QTest::newRow("blanks") << " a b "_qs
                            << "' a b '"_qs;
    QTest::newRow("expression") << "count(*)"_qs
                                << "'count(*)'"_qs;
    QTest::newRow("toString") << "toString"_qs
                              << "'toString'"_qs;
    QTest::newRow("constructor") << "constructor"_qs
                                 << "'constructor'"_qs;
    QTest::newRow("quotes") << "'\""_qs
                            << "'\\'\"'"_qs;
}

void TestResults::oddColumnNames()
{
    QFETCH(QString, name);
    QFETCH(QString, literal);
    openStub("STUB"_qs).setDefaultReply(StubReply::table({{name, QVariant::Int}}, {{5}}));
    eval("var r = db.query('q');"_qs);
    QVERIFY(truth("r.hasOwnProperty(%1) && r[%1] === r.fields_index[0]"_qs.arg(literal)));
    QVERIFY(truth("r.fields_names[0] === %1 && r.fields_index[0][0] === 5"_qs.arg(literal)));
}

void TestResults::columnNamedProtoDoesNoHarm()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"__proto__"_qs, QVariant::Int}, {"b"_qs, QVariant::Int}}, {{5, 6}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_names, r.fields_index, r.__proto__, r.b, r.rows, r.length]"_qs),
             "[[\"__proto__\",\"b\"],[[5],[6]],[5],[6],1,1]"_qs);
    QVERIFY(truth("db.clear(), r.rows === undefined && db.query('q').b[0] === 6"_qs));
}

// --- types and nulls ---

void TestResults::columnOfNullsOnlyHasNoType()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::table(
        {{"a"_qs, QVariant::Int}, {"b"_qs, QVariant::Int}},
        {{QVariant(), QVariant(QVariant::Int)}, {QVariant(), QVariant(QVariant::Int)}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_types, r.fields_nulls, r.rows]"_qs), "[[0,0],[[0,1],[0,1]],2]"_qs);
    QCOMPARE(json("[r.a, r.b]"_qs), "[[null,null],[null,null]]"_qs);
}

void TestResults::lastDifferingTypeNamesTheColumn()
{
    const QVector<StubReply::Column> columns{{"a"_qs, QVariant::Int}, {"b"_qs, QVariant::Int}};
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table(columns, {{1, "x"_qs}, {"x"_qs, 2.5}, {2, 2.5}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_types, r.fields_typeN, r.a, r.b]"_qs),
             "[[2,6],[\"int\",\"double\"],[1,\"x\",2],[\"x\",2.5,2.5]]"_qs);
}

void TestResults::nullsDoNotChangeTheType()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::Int}},
                         {{QVariant()}, {7}, {QVariant(QVariant::String)}, {QVariant()}, {8}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_types, r.fields_nulls, r.a]"_qs),
             "[[2],[[0,2,3]],[null,7,null,null,8]]"_qs);
}

void TestResults::typeNamesAreThoseOfVariants()
{
    const QVariantList row{true,
                           1u,
                           Q_INT64_C(1),
                           Q_UINT64_C(1),
                           2.5,
                           2.5f,
                           QByteArray("x"),
                           QDate(2020, 1, 2),
                           QTime(3, 4),
                           QDateTime(QDate(2020, 1, 2), QTime(3, 4))};
    QVector<StubReply::Column> columns;
    for (int i = 0; i < row.size(); ++i)
        columns.append({"c%1"_qs.arg(i), QVariant::Int});
    openStub("STUB"_qs).setDefaultReply(StubReply::table(columns, {row}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("r.fields_typeN"_qs),
             "[\"bool\",\"uint\",\"qlonglong\",\"qulonglong\",\"double\",\"float\",\"QByteArray\","
             "\"QDate\",\"QTime\",\"QDateTime\"]"_qs);
    QCOMPARE(json("r.fields_types"_qs), "[1,3,4,5,6,%1,12,14,15,16]"_qs.arg(QMetaType::Float));
}

void TestResults::nullsAreRowNumbers()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::generated({{"a"_qs, QVariant::Int}}, 3000, [](int row) {
            return QVariantList{row % 1000 == 999 ? QVariant() : QVariant(row)};
        }));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(json("[r.fields_nulls, r.rows, r.a[0], r.a[999], r.a[2998]]"_qs),
             "[[[999,1999,2999]],3000,0,null,2998]"_qs);
}

void TestResults::sqliteReportsTypesOfItsValues()
{
    openSqlite();
    eval("db.query('create table t(i integer, r real, s text, b blob, n integer)');"
         "db.query(\"insert into t values(1, 1.5, 'a', x'00ff', null)\");"
         "var r = db.query('select * from t');"_qs);
    QCOMPARE(json("[r.fields_types, r.fields_typeN.slice(0, 4), r.fields_nulls]"_qs),
             "[[4,6,10,12,0],[\"qlonglong\",\"double\",\"QString\",\"QByteArray\"],"
             "[[],[],[],[],[0]]]"_qs);
    QCOMPARE(json("[r.i, r.r, r.s, r.n]"_qs), "[[1],[1.5],[\"a\"],[null]]"_qs);
}

// --- counts and ids ---

void TestResults::affectedRowsKnownOnlyAfterTheRows()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().withAffected(2).withAffectedOnlyAfterLastRow());
    QCOMPARE(json("[db.query('q').numRowsAffected, db.affectedRows]"_qs), "[2,2]"_qs);
    recordAnswers();
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(number("answers[0][0].numRowsAffected"_qs), 2.0);
}

void TestResults::negativeAffectedRowsAreZero()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().withAffected(-1));
    QCOMPARE(number("db.query('q').numRowsAffected"_qs), 0.0);
}

void TestResults::lastInsertIdFollowsTheSystem_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QSqlDriver::DbmsType>("dbms");
    QTest::addColumn<bool>("read");
    const auto row = [](const char *name, const QString &driver, QSqlDriver::DbmsType dbms,
                        bool read) { QTest::newRow(name) << driver << dbms << read; };
    row("ODBC: SQL Server", "QODBC"_qs, QSqlDriver::MSSqlServer, true);
    row("ODBC: MySQL", "QODBC"_qs, QSqlDriver::MySqlServer, true);
    row("ODBC: PostgreSQL", "QODBC"_qs, QSqlDriver::PostgreSQL, true);
    row("ODBC: Sybase", "QODBC"_qs, QSqlDriver::Sybase, true);
    row("ODBC: unknown", "QODBC"_qs, QSqlDriver::UnknownDbms, false);
    row("ODBC: Oracle", "QODBC"_qs, QSqlDriver::Oracle, false);
    row("ODBC: SQLite", "QODBC"_qs, QSqlDriver::SQLite, false);
    row("ODBC: Interbase", "QODBC"_qs, QSqlDriver::Interbase, false);
    row("ODBC: DB2", "QODBC"_qs, QSqlDriver::DB2, false);
    row("PostgreSQL", "QPSQL"_qs, QSqlDriver::PostgreSQL, false);
    row("other driver: PostgreSQL", "STUB"_qs, QSqlDriver::PostgreSQL, false);
    row("other driver: unknown", "STUB"_qs, QSqlDriver::UnknownDbms, true);
    row("other driver: SQL Server", "STUB"_qs, QSqlDriver::MSSqlServer, true);
    row("MySQL", "QMYSQL"_qs, QSqlDriver::MySqlServer, true);
    row("SQLite", "QSQLITE"_qs, QSqlDriver::SQLite, true);
    row("Firebird", "QIBASE"_qs, QSqlDriver::Interbase, true);
    row("Oracle", "QOCI"_qs, QSqlDriver::Oracle, true);
    row("DB2", "QDB2"_qs, QSqlDriver::DB2, true);
}

void TestResults::lastInsertIdFollowsTheSystem()
{
    QFETCH(QString, driver);
    QFETCH(QSqlDriver::DbmsType, dbms);
    QFETCH(bool, read);
    openStub(driver, dbms).setDefaultReply(StubReply::affected(1).withLastInsertId(77));
    const QString expected = read ? "77"_qs : "null"_qs;
    QCOMPARE(json("db.query('insert').lastInsertId"_qs), expected);
    QCOMPARE(stub().count(StubCall::AskLastInsertId), read ? 1 : 0);
    recordAnswers();
    eval("db.query_thread(record, 'insert')"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("answers[0][0].lastInsertId"_qs), expected);
}

void TestResults::lastInsertIdKeepsItsType_data()
{
    QTest::addColumn<QVariant>("id");
    QTest::addColumn<QString>("seen");
    QTest::newRow("string") << QVariant("a-1"_qs) << "\"a-1\""_qs;
    QTest::newRow("qlonglong") << QVariant(Q_INT64_C(5000000000)) << "5000000000"_qs;
    QTest::newRow("zero") << QVariant(0) << "0"_qs;
}

void TestResults::lastInsertIdKeepsItsType()
{
    QFETCH(QVariant, id);
    QFETCH(QString, seen);
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(1).withLastInsertId(id));
    QCOMPARE(json("db.query('insert').lastInsertId"_qs), seen);
}

void TestResults::lastInsertIdIsReadOnceAndAfterTheRows()
{
    int asked = -1;
    StubServer &server = openStub("STUB"_qs);
    const auto source = [&](int row) {
        asked = server.count(StubCall::AskLastInsertId);
        return QVariantList{row};
    };
    server.setDefaultReply(
        StubReply::generated({{"a"_qs, QVariant::Int}}, 5, source).withLastInsertId(5));
    QCOMPARE(number("db.query('q').lastInsertId"_qs), 5.0);
    QCOMPARE(asked, 0);
    QCOMPARE(server.count(StubCall::AskLastInsertId), 1);
}

void TestResults::sqliteTellsTheInsertedId()
{
    openSqlite();
    eval("db.query('create table t(id integer primary key, a)');"
         "db.query('insert into t values(41, 1)');"
         "var r = db.query('insert into t(a) values(2)');"_qs);
    QCOMPARE(json("[r.lastInsertId, r.numRowsAffected, r.fields]"_qs), "[42,1,0]"_qs);
}

void TestResults::executedQueryIsTheDriversText()
{
    openStub("STUB"_qs);
    QCOMPARE(text("db.query('select 1').executedQuery"_qs), "select 1"_qs);
    QCOMPARE(text("db.exec('p', [1, 2]).executedQuery"_qs), "EXECUTE PROCEDURE p(:a0,:a1)"_qs);
}

void TestResults::rowsAreNotAskedForWithoutColumns()
{
    StubReply reply = StubReply::generated({}, 5, [](int) { return QVariantList(); });
    openStub("STUB"_qs).setDefaultReply(reply);
    QCOMPARE(json("[db.query('q').rows, db.queryResult.fields]"_qs), "[0,0]"_qs);
    QCOMPARE(stub().rowsRead(), qint64(0));
}

// --- errors while rows are read ---

void TestResults::partialResultIsAnError()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().failingAtRow(1, statementError("cut"_qs)));
    eval("var old = db.queryResult;"_qs);
    QVERIFY(truth("db.query('q') === false && db.isOpen"_qs));
    QCOMPARE(json("[db.lastErrors.databaseText, db.lastErrors.type, db.counters().cnt_sql_ok,"
                  "db.counters().cnt_sql_er]"_qs),
             "[\"cut\",2,0,1]"_qs);
    QVERIFY(truth("db.queryResult === undefined"_qs));
    QCOMPARE(sent(), QStringList{"-1 query ошибка выполнения: 'cut STUB: failed'"_qs});
    QVERIFY(criticalLines().value(0).endsWith("query \t StatementError"_qs));
}

void TestResults::partialResultIsAnErrorThroughExec()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().failingAtRow(1, statementError("cut"_qs)));
    QVERIFY(truth("db.exec('p', [1]) === false && db.isOpen"_qs));
    QCOMPARE(text("db.lastErrors.databaseText"_qs), "cut"_qs);
    QCOMPARE(sent(), QStringList{"-1 exec ошибка выполнения: 'cut STUB: failed'"_qs});
    QVERIFY(criticalLines().value(0).endsWith("exec \t StatementError"_qs));
}

void TestResults::partialResultIsDeliveredAsItsError()
{
    openStub("STUB"_qs).setDefaultReply(twoRows().failingAtRow(1, statementError("cut"_qs)));
    recordAnswers();
    eval("db.query_thread(record, 'q'); db.query_thread('q');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0], answers[0][1]]"_qs), "[{},\"cut\"]"_qs);
    QCOMPARE(json("finished[0].slice(0, 3)"_qs), "[false,{},\"cut\"]"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er, db.lastError]"_qs),
             "[0,2,\"cut STUB: failed\"]"_qs);
}

void TestResults::connectionLostWhileReadingCloses()
{
    openStub("STUB"_qs).setDefaultReply(
        twoRows().failingAtRow(1, stubError(QSqlError::ConnectionError, "lost"_qs)));
    QVERIFY(truth("db.query('q') === false && !db.isOpen"_qs));
}

void TestResults::sqliteFailsInTheMiddle()
{
    openSqlite();
    eval("db.query('create table t(a)'); db.query('insert into t values(1),(2),"
         "(-9223372036854775808)');"_qs);
    // The third row cannot be computed; the first two are read before.
    QVERIFY(truth("db.query('select abs(a) from t') === false"_qs));
    QVERIFY2(criticalLines().value(0).contains("query \t "_qs),
             qPrintable(criticalLines().value(0)));
}

// --- cancelled read ---

void TestResults::stopCancelsTheReading_data()
{
    QTest::addColumn<QString>("stop");
    QTest::newRow("stop_thread") << "db.stop_thread(0)"_qs;
    QTest::newRow("negative limit") << "db.stop_thread(-5)"_qs;
}

void TestResults::stopCancelsTheReading()
{
    QFETCH(QString, stop);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(
        StubReply::generated({{"a"_qs, QVariant::Int}}, 1000,
                             [](int row) { return QVariantList{row}; })
            .withGateAtRow(2, gate)
            .withLastInsertId(5));
    recordAnswers();
    eval("db.query_thread(record, 'many'); db.query_thread(['many', 'more']);"_qs);
    QVERIFY(gate->waitReached());
    eval(stop);
    gate->release();
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0], answers[0][1]]"_qs), "[{},\"SQL запрос отменен\"]"_qs);
    // The second task was not begun.
    QVERIFY(truth("finished[0][0] === false"_qs));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"many"_qs});
    QVERIFY2(stub().rowsRead() <= 3, qPrintable(QString::number(stub().rowsRead())));
    QCOMPARE(stub().count(StubCall::AskLastInsertId), 1);
}

void TestResults::stopRequestDoesNotTouchASynchronousRead()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    eval("db.start_thread(); db.stop_thread(60000);"_qs);
    QVERIFY(truth("!db.isRunning"_qs));
    QCOMPARE(number("db.query('q').rows"_qs), 2.0);
}

void TestResults::sqliteReadIsCancelled_data()
{
    QTest::addColumn<QString>("stop");
    QTest::newRow("stop_thread") << "db.stop_thread(20000)"_qs;
    QTest::newRow("close") << "db.close()"_qs;
}

void TestResults::sqliteReadIsCancelled()
{
    QFETCH(QString, stop);
    openSqlite();
    recordAnswers();
    eval("db.query_thread(record, 'with recursive c(x) as (select 1 union all select x + 1 from c '"
         "    + 'limit 1000000000) select x from c');"_qs);
    QVERIFY(host().waitForScript("db.counters().thr_sql_finish === 1"_qs));
    eval(stop);
    QVERIFY(truth("!db.isRunning"_qs));
    QVERIFY(waitForAnswers(1));
    // A stop that came before the first row of the statement is a task that never ran.
    const QString answer = json("answers[0].slice(0, 2)"_qs);
    QVERIFY2(answer == "[{},\"SQL запрос отменен\"]"_qs || answer == "[false,false]"_qs,
             qPrintable(answer));
}

/// Whether the driver or the look at the stop request ends it first is chance, and all the same.
void TestResults::readThatTheDriverEndsIsCancelled()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setFeature(QSqlDriver::CancelQuery);
    stub().setDefaultReply(twoRows().withGateAtRow(1, gate));
    recordAnswers();
    eval("db.query_thread('q');"_qs);
    QVERIFY(gate->waitReached());
    eval("db.stop_thread(20000)"_qs);
    QVERIFY(truth("!db.isRunning"_qs));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("finished[0].slice(0, 3)"_qs), "[false,{},\"SQL запрос отменен\"]"_qs);
    // It was executed, whatever became of its rows.
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[1,0]"_qs);
    QCOMPARE(text("db.lastError"_qs), QString());
}

void TestResults::readThatTheStopMeetsIsNoLostConnection()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(
        twoRows()
            .failingAtRow(1, stubError(QSqlError::ConnectionError, "gone"_qs))
            .withGateAtRow(1, gate));
    recordAnswers();
    eval("db.query_thread('q');"_qs);
    QVERIFY(gate->waitReached());
    eval("db.stop_thread(0)"_qs);
    gate->release();
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("finished[0].slice(0, 3)"_qs), "[false,{},\"gone\"]"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[0,1]"_qs);
}

// --- how long a result lasts ---

void TestResults::queryResultIsTheLastResult()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    QVERIFY(truth("db.query('q') === db.queryResult"_qs));
    QVERIFY(truth("db.exec('p', [1]) === db.queryResult"_qs));
    QVERIFY(truth("db.exec('q') === db.queryResult"_qs));
    QCOMPARE(number("db.queryResult.rows"_qs), 2.0);
}

void TestResults::nextCallEmptiesTheResult_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<bool>("makesAnother");
    QTest::newRow("query") << "db.query('q')"_qs << true;
    QTest::newRow("exec") << "db.exec('p', [])"_qs << true;
    QTest::newRow("exec with one argument") << "db.exec('q')"_qs << true;
    QTest::newRow("query that fails") << "db.query('bad')"_qs << false;
    QTest::newRow("exec that cannot be prepared") << "db.exec('bad', [])"_qs << false;
    QTest::newRow("clear") << "db.clear()"_qs << false;
    QTest::newRow("clearSqlResult") << "db.clearSqlResult()"_qs << false;
    QTest::newRow("tables") << "db.tables()"_qs << true;
    QTest::newRow("close") << "db.close()"_qs << false;
}

void TestResults::nextCallEmptiesTheResult()
{
    QFETCH(QString, call);
    QFETCH(bool, makesAnother);
    openStub("STUB"_qs).setDefaultReply(twoRows());
    const StubReply bad = StubReply::prepareFailure(statementError("no"_qs));
    stub().onExact("bad"_qs, bad);
    stub().onExact("EXECUTE PROCEDURE bad"_qs, bad);
    eval("var held = db.query('q'); %1;"_qs.arg(call));
    // The marker cannot be deleted, so it is all that is left.
    QCOMPARE(propertiesOf(host().global("held"_qs)), QStringList{"$ res sql 7"_qs});
    QVERIFY(truth("db.queryResult !== held"_qs));
    QVERIFY(truth("(typeof db.queryResult === 'object') === %1"_qs.arg(makesAnother ? "true"_qs
                                                                                    : "false"_qs)));
}

void TestResults::threadedResultsLeaveQueryResultAlone()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    recordAnswers();
    eval("var held = db.query('q'); finished = [];"
         "db.query_thread(record, 'q'); db.query_thread('q');"_qs);
    QVERIFY(waitForAnswers(2));
    QVERIFY(truth("db.queryResult === held && held.rows === 2"_qs));
    eval("db.query('q')"_qs);
    QVERIFY(truth("answers[0][0].rows === 2 && finished[0][0].rows === 2"_qs));
}

void TestResults::deletedQueryResultIsMadeAgain()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    eval("db.query('q'); delete db.queryResult;"_qs);
    QVERIFY(truth("db.query('q') === db.queryResult"_qs));
    eval("db.queryResult = 'text';"_qs);
    QVERIFY(truth("db.query('q') === db.queryResult && db.queryResult.rows === 2"_qs));
}

void TestResults::emptiedResultKeepsItsArrays()
{
    openStub("STUB"_qs).setDefaultReply(twoRows());
    eval("var ids = db.query('q').id; db.clear();"_qs);
    QCOMPARE(json("ids"_qs), "[1,2]"_qs);
}

QTEST_GUILESS_MAIN(TestResults)
#include "test_results.moc"
