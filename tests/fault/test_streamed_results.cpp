/// @file
/// Large results are converted while the worker still reads, and nobody can tell: not by what is
/// delivered, nor by when, nor by what is left when the task, the connection or the engine ends
/// half-way. The slices are made small, so that a few rows stand for a large result.
#include "worker_test.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QPointer>
#include <QTimer>
#include <QtTest>

#include <functional>

/// A value whose conversion the test sees, because the host has registered one for its type.
struct Probe {
    int row = 0;
};
Q_DECLARE_METATYPE(Probe)

namespace
{

const char sliceVariable[] = "VEXT_TEST_SLICE_CELLS";
const QString sql = QStringLiteral("select");
constexpr int rowCount = 40;

int converted = 0;
std::function<void(int row)> onConversion;

QScriptValue probeToScript(QScriptEngine *engine, const Probe &probe)
{
    ++converted;
    if (onConversion)
        onConversion(probe.row);
    return QScriptValue(engine, probe.row);
}

/// Takes as long as a dear conversion.
void passMs(int ms)
{
    const QDeadlineTimer end(ms, Qt::PreciseTimer);
    while (!end.hasExpired())
        continue;
}

void probeFromScript(const QScriptValue &value, Probe &probe)
{
    probe.row = value.toInt32();
}

QVariant probe(int row)
{
    return QVariant::fromValue(Probe{row});
}

QVariant nullOf(QVariant::Type type)
{
    return QVariant(type);
}

/// Everything that a script can read of a result, elements that are left out included.
const char describe[] = R"JS(
function describe(r) {
    var lines = [];
    for (var name in r) {
        if (!(r[name] instanceof Array))
            lines.push(name + '=' + r[name]);
    }
    lines.push('names=' + r.fields_names, 'types=' + r.fields_types, 'typeN=' + r.fields_typeN);
    for (var c = 0; c < r.fields; ++c) {
        var column = r.fields_index[c];
        var cells = [];
        for (var i = 0; i < column.length; ++i)
            cells.push(i in column ? typeof column[i] + ' ' + column[i] : 'none');
        lines.push(c + ': ' + column.length + ' [' + cells.join('|') + '] nulls ' +
                   r.fields_nulls[c].length + ' ' + r.fields_nulls[c] + ' ' +
                   (r[r.fields_names[c]] === column));
    }
    return lines.join('\n');
}
)JS";

} // namespace

class StreamedResultsTest : public WorkerTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rowsAreConvertedWhileTheWorkerReads();
    void smallResultsAreNotCut();
    void stepsLeaveTheEventLoopItsTurn();
    void longTextsAreCutBeforeTheirRowsAreMany();

    void slicesMakeTheSameResult_data();
    void slicesMakeTheSameResult();
    void nullsAreShownAsTheSettingStandsAtTheDelivery_data();
    void nullsAreShownAsTheSettingStandsAtTheDelivery();
    void nullsOfAllSlicesAreShownAlike();
    void resultsOfAListComeOneByOne();
    void collectedGarbageTakesNothingThatIsConverted();

    void failureHalfWayDeliversItsErrorOnly();
    void failedResultIsNotConvertedToItsEnd();
    void stopHalfWayDeliversTheCancellationOnly();
    void failureInAListLeavesTheOtherResultsWhole();
    void deliveriesKeepTheirOrderInANestedLoop();
    void resultsAreDeliveredInsideACallbacksEventLoop();
    void conversionThatRunsAnEventLoopDeliversEachTaskOnceInOrder_data();
    void conversionThatRunsAnEventLoopDeliversEachTaskOnceInOrder();

    void taskHandedBackInAConversionComesInTheCallbacksEventLoop();

    void connectionDeletedBetweenTwoSteps();
    void connectionDeletedWithAStepUnderWay();
    void connectionDeletedInAConversion();
    void connectionDeletedInAConversionOfItsOwnCall();
    void engineDestroyedBetweenTwoSteps();

private:
    void sliceBy(int cells);
    /// A statement that answers so many rows of one probe each and stands still at a row.
    ThreadGatePtr holdAtRow(int row, int rows = rowCount);
    bool waitConverted(int count);
    /// Queues a task whose beginning shows that the worker has handed back those before it.
    void queueBehind() { m_script->eval(QStringLiteral("db.query_thread('behind')")); }
    /// No events are handled meanwhile.
    bool waitHandedBack()
    {
        return m_server->waitForCall(StubCall::Exec, QStringLiteral("behind"));
    }
    QString described(const QString &tag)
    {
        return m_script->eval(QStringLiteral("describe(outcomes['%1'].result)").arg(tag))
            .toString();
    }
    VEXT_SQL *m_db = nullptr;
};

void StreamedResultsTest::init()
{
    qputenv(sliceVariable, "4");
    converted = 0;
    onConversion = nullptr;
    WorkerTest::init();
    m_server->setFeature(QSqlDriver::CancelQuery);
    qScriptRegisterMetaType<Probe>(m_script->host.engine(), probeToScript, probeFromScript);
    m_script->eval(QLatin1String(describe));
    m_db = m_script->connection();
}

void StreamedResultsTest::cleanup()
{
    onConversion = nullptr;
    WorkerTest::cleanup();
    qunsetenv(sliceVariable);
}

/// For connections that are made from now on.
void StreamedResultsTest::sliceBy(int cells)
{
    if (cells > 0)
        qputenv(sliceVariable, QByteArray::number(cells));
    else
        qunsetenv(sliceVariable);
    m_script->eval(QStringLiteral("destroy(db)"));
    m_db = m_script->connection();
}

ThreadGatePtr StreamedResultsTest::holdAtRow(int row, int rows)
{
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(
        sql, StubReply::generated({{QStringLiteral("p"), QVariant::UserType}}, rows, [](int r) {
                 return QVariantList{probe(r)};
             }).withGateAtRow(row, gate));
    return gate;
}

bool StreamedResultsTest::waitConverted(int count)
{
    return waitUntil([count] { return converted >= count; });
}

// --- While it reads ---

void StreamedResultsTest::rowsAreConvertedWhileTheWorkerReads()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY2(waitConverted(28), "nothing is converted before the last row was read");
    QCOMPARE(m_script->delivered(), QStringList());
    QCOMPARE(scriptInt(QStringLiteral("db.queryResult === undefined ? 1 : 0")), 1);
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(converted, rowCount);
    QCOMPARE(
        m_script->json(QStringLiteral("outcomes.a.result.p.join()")),
        m_script->json(QStringLiteral("(function () { var l = []; for (var i = 0; i < %1; ++i) "
                                      "l.push(i); return l.join(); })()")
                           .arg(rowCount)));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.a.result.rows")), rowCount);
}

void StreamedResultsTest::smallResultsAreNotCut()
{
    sliceBy(0);
    const ThreadGatePtr gate = holdAtRow(999, 1000);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(gate->waitReached());
    drainEvents();
    QCOMPARE(converted, 0);
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(converted, 1000);
}

/// Each cell takes a millisecond, and the rows are all there before the first one is converted.
void StreamedResultsTest::stepsLeaveTheEventLoopItsTurn()
{
    constexpr int rows = 400;
    constexpr int most = 48; // cells between two looks at the clock, and as many again for chance
    const ThreadGatePtr gate = holdAtRow(rows - 1, rows);
    int inOneGo = 0;
    int longest = 0;
    onConversion = [&](int) {
        passMs(1);
        longest = qMax(longest, ++inOneGo);
    };
    QTimer tick;
    connect(&tick, &QTimer::timeout, this, [&] { inOneGo = 0; });
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(gate->waitReached());
    tick.start(1);
    QVERIFY(waitConverted(rows - 8));
    QVERIFY2(longest <= most, qPrintable(QStringLiteral("%1 cells in one go").arg(longest)));
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
}

/// The usual slice would be thousands of rows.
void StreamedResultsTest::longTextsAreCutBeforeTheirRowsAreMany()
{
    constexpr int rows = 500;
    sliceBy(0);
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(sql, StubReply::generated(
                               {{QStringLiteral("t"), QVariant::String},
                                {QStringLiteral("p"), QVariant::UserType}},
                               rows,
                               [](int r) {
                                   return QVariantList{QString(20000, QLatin1Char('x')), probe(r)};
                               })
                               .withGateAtRow(rows - 1, gate));
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY2(waitConverted(rows / 2), "long texts wait for the end of the read");
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.a.result.t[499].length")), 20000);
}

// --- The same result ---

void StreamedResultsTest::slicesMakeTheSameResult_data()
{
    QTest::addColumn<int>("cells");
    QTest::addColumn<int>("rows");
    QTest::addColumn<bool>("enableNull");
    for (const int cells : {1, 7, 100, 3000, 40000}) {
        for (const int rows : {0, 1, 5, 63, 64, 1025, 5000}) {
            for (const bool enableNull : {true, false}) {
                if (cells == 1 && rows > 100)
                    continue;
                QTest::addRow("%d cells, %d rows, %d", cells, rows, int(enableNull))
                    << cells << rows << enableNull;
            }
        }
    }
}

namespace
{

const QVector<StubReply::Column> manyColumns{
    {QStringLiteral("i"), QVariant::Int},         {QStringLiteral("l"), QVariant::LongLong},
    {QStringLiteral("d"), QVariant::Double},      {QStringLiteral("unique"), QVariant::String},
    {QStringLiteral("few"), QVariant::String},    {QStringLiteral("inn"), QVariant::Int},
    {QStringLiteral("tn"), QVariant::String},     {QStringLiteral("untyped"), QVariant::Int},
    {QStringLiteral("all"), QVariant::Int},       {QStringLiteral("none"), QVariant::Invalid},
    {QStringLiteral("turns"), QVariant::Int},     {QStringLiteral("late"), QVariant::String},
    {QStringLiteral("when"), QVariant::DateTime}, {QStringLiteral("textHoles"), QVariant::String},
    {QStringLiteral("kinds"), QVariant::Int},     {QStringLiteral("i"), QVariant::Int}};

/// A column whose nulls are of several types.
QVariant nullOfSomeKind(int r)
{
    const QVariant kinds[] = {nullOf(QVariant::Int), QVariant(r), nullOf(QVariant::String),
                              nullOf(QVariant::Double), QVariant()};
    return kinds[r % 5];
}

QVariantList manyValues(int r)
{
    const QDateTime day(QDate(2020, 1, 1), QTime(1, 2, 3), Qt::UTC);
    return {r,
            qint64(r) << 33,
            r / 4.0,
            QStringLiteral("text %1").arg(r),
            QStringLiteral("few %1").arg(r % 3),
            r % 3 == 0 ? nullOf(QVariant::Int) : QVariant(r),
            r % 4 == 1 ? nullOf(QVariant::String) : QVariant(QStringLiteral("t%1").arg(r % 5)),
            r % 2 == 0 ? QVariant() : QVariant(r),
            nullOf(QVariant::Int),
            QVariant(),
            r < 17  ? QVariant(r)
            : r % 5 ? QVariant(r / 2.0)
                    : nullOf(QVariant::Double),
            r < 33 ? nullOf(QVariant::String) : QVariant(QStringLiteral("late %1").arg(r)),
            r % 7 == 3 ? nullOf(QVariant::DateTime) : QVariant(day.addSecs(r)),
            r % 5 > 2 ? QVariant() : QVariant(QStringLiteral("h%1").arg(r % 2)),
            nullOfSomeKind(r),
            -r};
}

} // namespace

/// The synchronous call converts the same rows in one piece.
void StreamedResultsTest::slicesMakeTheSameResult()
{
    QFETCH(int, cells);
    QFETCH(int, rows);
    QFETCH(bool, enableNull);
    sliceBy(cells);
    m_server->onExact(sql, StubReply::generated(manyColumns, rows, manyValues));
    m_db->setProperty("enableNull", enableNull);
    const QString whole = m_script->eval(QStringLiteral("describe(db.query('select'))")).toString();
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(described(QStringLiteral("a")), whole);
}

void StreamedResultsTest::nullsAreShownAsTheSettingStandsAtTheDelivery_data()
{
    QTest::addColumn<bool>("before");
    QTest::addColumn<bool>("after");
    QTest::newRow("on, off") << true << false;
    QTest::newRow("off, on") << false << true;
    QTest::newRow("on, on") << true << true;
    QTest::newRow("off, off") << false << false;
}

void StreamedResultsTest::nullsAreShownAsTheSettingStandsAtTheDelivery()
{
    QFETCH(bool, before);
    QFETCH(bool, after);
    constexpr int rows = 200;
    sliceBy(64);
    auto columns = manyColumns;
    columns.append({QStringLiteral("p"), QVariant::UserType});
    const auto values = [](int r) { return manyValues(r) << probe(r); };
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(sql, StubReply::generated(columns, rows, values).withGateAtRow(150, gate));
    m_server->onExact(QStringLiteral("whole"), StubReply::generated(columns, rows, values));
    m_db->setProperty("enableNull", after);
    const QString whole =
        m_script->eval(QStringLiteral("describe(db.query('whole'))"))
            .toString()
            .replace(QStringLiteral("executedQuery=whole"), QStringLiteral("executedQuery=select"));
    converted = 0;
    m_db->setProperty("enableNull", before);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(140));
    m_db->setProperty("enableNull", after);
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(described(QStringLiteral("a")), whole);
}

/// The setting is another one for some of the steps, and the first one again at the delivery.
void StreamedResultsTest::nullsOfAllSlicesAreShownAlike()
{
    constexpr int rows = 120;
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(sql,
                      StubReply::generated({{QStringLiteral("n"), QVariant::Int},
                                            {QStringLiteral("p"), QVariant::UserType}},
                                           rows,
                                           [](int r) {
                                               return QVariantList{nullOf(QVariant::Int), probe(r)};
                                           })
                          .withGateAtRow(rows - 1, gate));
    onConversion = [this](int row) {
        passMs(1);
        if (row == 30 || row == 80)
            m_db->setProperty("enableNull", row == 80);
    };
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(rows - 4));
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.a.result.n.filter(function (cell) { return cell "
                                      "=== null; }).length")),
             rows);
}

void StreamedResultsTest::resultsOfAListComeOneByOne()
{
    m_server->onExact(sql, StubReply::generated(manyColumns, 100, manyValues));
    m_server->onExact(QStringLiteral("second"), StubReply::generated(manyColumns, 70, [](int r) {
                          return manyValues(r + 9);
                      }));
    m_server->onExact(QStringLiteral("none"), StubReply::affected(3));
    const QString first = m_script->eval(QStringLiteral("describe(db.query('select'))")).toString();
    const QString second =
        m_script->eval(QStringLiteral("describe(db.query('second'))")).toString();
    QVERIFY(m_script->queueList({sql, QStringLiteral("none"), QStringLiteral("second"), sql},
                                QStringLiteral("a")));
    QVERIFY(m_script->waitDelivered(1));
    const auto at = [this](int i) {
        return m_script->eval(QStringLiteral("describe(outcomes.a.result[%1])").arg(i)).toString();
    };
    QCOMPARE(at(0), first);
    QCOMPARE(at(2), second);
    QCOMPARE(at(3), first);
    QCOMPARE(scriptInt(QStringLiteral("outcomes.a.result[1].numRowsAffected")), 3);
}

void StreamedResultsTest::collectedGarbageTakesNothingThatIsConverted()
{
    constexpr int rows = 300;
    sliceBy(32);
    m_server->onExact(
        sql, StubReply::generated(
                 {{QStringLiteral("t"), QVariant::String},
                  {QStringLiteral("d"), QVariant::Double},
                  {QStringLiteral("p"), QVariant::UserType}},
                 rows, [](int r) {
                     return QVariantList{QStringLiteral("text %1").arg(r), r + 0.5, probe(r)};
                 }));
    onConversion = [this](int row) {
        if (row % 3 == 0)
            m_script->host.engine()->collectGarbage();
    };
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(
        scriptInt(QStringLiteral("(function (r) { for (var i = 0; i < 300; ++i) { if (r.t[i] !== "
                                 "'text ' + i || r.d[i] !== i + 0.5 || r.p[i] !== i) return i; } "
                                 "return 300; })(outcomes.a.result)")),
        rows);
}

// --- Ends half-way, and order ---

void StreamedResultsTest::failureHalfWayDeliversItsErrorOnly()
{
    m_server->onExact(
        sql, StubReply::generated({{QStringLiteral("p"), QVariant::UserType}}, rowCount, [](int r) {
                 return QVariantList{probe(r)};
             }).failingAtRow(33, statementError()));
    m_server->onExact(QStringLiteral("next"), StubReply::generated(manyColumns, 30, manyValues));
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(m_script->queue(QStringLiteral("next"), QStringLiteral("b")));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.a.error")).toString(),
             statementError().databaseText());
    QCOMPARE(m_script->json(QStringLiteral("outcomes.a.result")), QStringLiteral("{}"));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.b.result.rows")), 30);
}

/// All its rows wait when the first of them is converted, and the failure right behind them.
void StreamedResultsTest::failedResultIsNotConvertedToItsEnd()
{
    constexpr int rows = 400;
    m_server->onExact(
        sql, StubReply::generated({{QStringLiteral("p"), QVariant::UserType}}, rows, [](int r) {
                 return QVariantList{probe(r)};
             }).failingAtRow(rows - 1, statementError()));
    onConversion = [](int) { passMs(1); };
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    queueBehind();
    QVERIFY(waitHandedBack());
    QVERIFY(m_script->waitDelivered(1));
    const int before = converted;
    drainEvents();
    QVERIFY2(before > 0 && before < rows / 2, qPrintable(QString::number(before)));
    QCOMPARE(converted, before);
}

void StreamedResultsTest::stopHalfWayDeliversTheCancellationOnly()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(20));
    m_script->eval(QStringLiteral("db.stop_thread(0)"));
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(scriptInt(QStringLiteral("outcomes.a.error === false ? 0 : 1")));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.a.result")), QStringLiteral("{}"));
    QVERIFY(waitStopped(m_db));
    m_server->onExact(QStringLiteral("next"), StubReply::generated(manyColumns, 30, manyValues));
    QVERIFY(m_script->queue(QStringLiteral("next"), QStringLiteral("b")));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.b.result.rows")), 30);
}

void StreamedResultsTest::failureInAListLeavesTheOtherResultsWhole()
{
    m_server->onExact(sql, StubReply::generated(manyColumns, 100, manyValues));
    m_server->onExact(
        QStringLiteral("bad"),
        StubReply::generated(manyColumns, 100, manyValues).failingAtRow(80, statementError()));
    const QString whole = m_script->eval(QStringLiteral("describe(db.query('select'))")).toString();
    QVERIFY(m_script->queueList({sql, QStringLiteral("bad"), sql}, QStringLiteral("a")));
    QVERIFY(m_script->waitDelivered(1));
    for (const int i : {0, 2})
        QCOMPARE(
            m_script->eval(QStringLiteral("describe(outcomes.a.result[%1])").arg(i)).toString(),
            whole);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.a.error")),
             QStringLiteral("[false,\"%1\",false]").arg(statementError().databaseText()));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.a.result[1]")), QStringLiteral("{}"));
}

void StreamedResultsTest::deliveriesKeepTheirOrderInANestedLoop()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(m_script->queue(QStringLiteral("small"), QStringLiteral("b")));
    QVERIFY(m_script->queue(sql, QStringLiteral("c")));
    QVERIFY(waitConverted(20));
    gate->release();
    m_script->eval(QStringLiteral("for (var i = 0; i < 50; ++i) handleEvents()"));
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(m_script->delivered(),
             (QStringList{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
    QCOMPARE(converted, 2 * rowCount);
}

void StreamedResultsTest::resultsAreDeliveredInsideACallbacksEventLoop()
{
    const ThreadGatePtr gate = holdAtRow(30);
    m_script->eval(QStringLiteral("db.query_thread(function (r) {"
                                  "  delivered.push('outer');"
                                  "  while (delivered.length < 2) handleEvents();"
                                  "  delivered.push('end'); }, 'first')"));
    QVERIFY(m_script->queue(sql, QStringLiteral("inner")));
    gate->release();
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(m_script->delivered(), (QStringList{QStringLiteral("outer"), QStringLiteral("inner"),
                                                 QStringLiteral("end")}));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.inner.result.rows")), rowCount);
}

void StreamedResultsTest::conversionThatRunsAnEventLoopDeliversEachTaskOnceInOrder_data()
{
    QTest::addColumn<int>("row");
    QTest::newRow("in a step") << 5;
    QTest::newRow("in the last rows") << rowCount - 1;
    QTest::newRow("in each row") << -1;
}

/// Tasks that are handed back meanwhile wait until the conversion under way has ended.
void StreamedResultsTest::conversionThatRunsAnEventLoopDeliversEachTaskOnceInOrder()
{
    QFETCH(int, row);
    const ThreadGatePtr gate = holdAtRow(30);
    onConversion = [&](int r) {
        if (row >= 0 && r != row)
            return;
        gate->release();
        for (int i = 0; i < 5; ++i) {
            QTest::qSleep(1);
            QCoreApplication::processEvents();
        }
    };
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(m_script->queue(QStringLiteral("small"), QStringLiteral("b")));
    QVERIFY(m_script->queue(sql, QStringLiteral("c")));
    QVERIFY(m_script->queue(QStringLiteral("small"), QStringLiteral("d")));
    QVERIFY(waitConverted(1));
    gate->release();
    QVERIFY(m_script->waitDelivered(4));
    drainEvents();
    QCOMPARE(m_script->delivered().join(QString()), QStringLiteral("abcd"));
    QCOMPARE(converted, 2 * rowCount);
    for (const char tag : {'a', 'c'})
        QCOMPARE(scriptInt(QStringLiteral("outcomes.%1.result.p[39]").arg(QLatin1Char(tag))), 39);
}

/// The last rows are converted at the delivery; the next task comes back meanwhile.
void StreamedResultsTest::taskHandedBackInAConversionComesInTheCallbacksEventLoop()
{
    holdAtRow(rowCount - 1)->release();
    onConversion = [this](int row) {
        passMs(1);
        if (row < rowCount - 1)
            return;
        QVERIFY(waitHandedBack());
        for (int i = 0; i < 5; ++i) {
            QTest::qSleep(1);
            QCoreApplication::processEvents();
        }
    };
    m_script->eval(QStringLiteral("db.query_thread(function () {"
                                  "  delivered.push('outer');"
                                  "  for (var i = 0; i < 100 && delivered.length < 2; ++i)"
                                  "    handleEvents();"
                                  "  delivered.push('end'); }, 'select')"));
    QVERIFY(m_script->queue(QStringLiteral("small"), QStringLiteral("inner")));
    queueBehind();
    QVERIFY(m_server->waitForCall(StubCall::ResultDestroyed, sql));
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(m_script->delivered().join(QLatin1Char(' ')), QStringLiteral("outer inner end"));
}

// --- Nobody is left to be told ---

void StreamedResultsTest::connectionDeletedBetweenTwoSteps()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(20));
    m_script->eval(QStringLiteral("destroy(db)"));
    const int before = converted;
    gate->release();
    QVERIFY(waitUntil([this] { return m_server->openDrivers() == 0; }));
    drainEvents();
    QCOMPARE(converted, before);
    QCOMPARE(m_script->delivered(), QStringList());
}

void StreamedResultsTest::connectionDeletedWithAStepUnderWay()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(20));
    const int before = converted;
    gate->release();
    QVERIFY(m_server->waitForCall(StubCall::ResultDestroyed, sql));
    m_script->eval(QStringLiteral("destroy(db)"));
    drainEvents();
    QCOMPARE(converted, before);
    QCOMPARE(m_script->delivered(), QStringList());
}

void StreamedResultsTest::connectionDeletedInAConversion()
{
    const ThreadGatePtr gate = holdAtRow(30);
    const QPointer<VEXT_SQL> db(m_db);
    onConversion = [&](int row) {
        if (row == 10)
            delete db.data();
        if (row == 11) // the rest of the step; the worker must not go before it
            drainEvents();
    };
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitUntil([&] { return !db; }));
    gate->release();
    QVERIFY(waitUntil([this] { return m_server->openDrivers() == 0; }));
    drainEvents();
    QCOMPARE(m_script->delivered(), QStringList());
}

void StreamedResultsTest::connectionDeletedInAConversionOfItsOwnCall()
{
    holdAtRow(-1, 3);
    const QPointer<VEXT_SQL> db(m_db);
    onConversion = [&](int row) {
        if (row == 1)
            delete db.data();
    };
    m_script->eval(QStringLiteral("var rows = db.query('select').rows"));
    QVERIFY(!db);
    QVERIFY(!m_script->host.engine()->hasUncaughtException());
    QCOMPARE(scriptInt(QStringLiteral("rows")), 3);
}

void StreamedResultsTest::engineDestroyedBetweenTwoSteps()
{
    const ThreadGatePtr gate = holdAtRow(30);
    QVERIFY(m_script->queue(sql, QStringLiteral("a")));
    QVERIFY(waitConverted(20));
    m_script->host.destroyEngine();
    const int before = converted;
    gate->release();
    QVERIFY(waitUntil([this] { return m_server->liveDrivers() == 0; }));
    drainEvents();
    QCOMPARE(converted, before);
}

QTEST_GUILESS_MAIN(StreamedResultsTest)
#include "test_streamed_results.moc"
