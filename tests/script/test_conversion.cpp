/// @file
/// From a driver's value to a script's: every type, NULL of every type, enableNull on and off.
#include "script_test.h"

#include <QUrl>
#include <QUuid>

namespace
{

template <typename T>
QVariant nullOf(T type)
{
    return QVariant(QVariant::Type(type));
}

using CellOf = std::function<QVariant(int row)>;

/// Columns of every kind that a driver may deliver, by the row.
const QVector<std::pair<const char *, CellOf>> columnKinds{
    {"int", [](int row) { return QVariant(row * 3 - 1000); }},
    {"longlong", [](int row) { return QVariant(Q_INT64_C(5000000000) + row); }},
    {"double", [](int row) { return QVariant(row * 0.25); }},
    {"few texts", [](int row) { return QVariant(QStringLiteral("text %1").arg(row % 7)); }},
    {"many texts", [](int row) { return QVariant(QStringLiteral("text %1").arg(row)); }},
    {"few texts, then many",
     [](int row) { return QVariant(QStringLiteral("text %1").arg(row < 500 ? row % 3 : row)); }},
    {"empty texts",
     [](int row) { return QVariant(row % 2 ? QStringLiteral("x") : QString(QLatin1String(""))); }},
    {"bool", [](int row) { return QVariant(row % 2 == 0); }},
    {"mixed", [](int row) { return row % 2 ? QVariant(row) : QVariant(QString::number(row)); }},
    {"int, then text",
     [](int row) { return row < 1500 ? QVariant(row) : QVariant(QString::number(row)); }},
};

using IsNull = bool (*)(int row);
const QVector<std::pair<const char *, IsNull>> nullPatterns{
    {"no nulls", [](int) { return false; }},
    {"every third", [](int row) { return row % 3 == 0; }},
    {"around blocks", [](int row) { return row % 1024 <= 1 || row % 1024 == 1023; }},
    {"first rows", [](int row) { return row < 70; }},
    {"all", [](int) { return true; }},
};

/// What the table of conversions says about a cell of these columns.
bool isConverted(const QScriptValue &seen, const QVariant &cell, bool enableNull)
{
    if (cell.isNull() && (enableNull || !cell.isValid()))
        return enableNull ? seen.isNull() : seen.isUndefined() || !seen.isValid();
    switch (cell.userType()) {
    case QMetaType::Bool:
        return seen.isBool() && seen.toBool() == cell.toBool();
    case QMetaType::QString:
        return seen.isString() && seen.toString() == cell.toString();
    default:
        return seen.isNumber() && seen.toNumber() == cell.toDouble();
    }
}

} // namespace

class TestConversion : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    void valueBecomesItsScriptType_data();
    void valueBecomesItsScriptType();
    void otherTypesConvertAsTheEngineDoes_data();
    void otherTypesConvertAsTheEngineDoes();
    void nullIsNullWhileEnabled_data();
    void nullIsNullWhileEnabled();
    void nullConvertsAsAValueWhileDisabled_data();
    void nullConvertsAsAValueWhileDisabled();
    void nullWithoutATypeIsLeftUndefinedWhileDisabled();
    void nullsOfOtherTypesConvertAsTheEngineDoes();
    void nullsAreNumberedEitherWay();
    void enableNullIsOnAtFirst();
    void enableNullCountsAtDelivery();
    void sqliteNullsFollowEnableNull();
    void largeNumbersLoseOnlyWhatDoublesLose();
    void textsKeepEveryCharacter();
    void everyCellOfAColumnIsConverted_data();
    void everyCellOfAColumnIsConverted();
    void scriptsOwnPushIsNotUsed();
    void columnsOfOneResultAreArraysOfTheirOwn();

private:
    /// Asks for the one value, synchronously and through the worker, and compares both.
    void checkValue(const QVariant &value, const QString &literal);
};

void TestConversion::checkValue(const QVariant &value, const QString &literal)
{
    stub().setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{value}}));
    const QString isSame =
        "(function(v) { var e = %1; return typeof v === typeof e && (v === e || v !== v && e !== e)"
        "    && (v !== 0 || 1 / v === 1 / e); })"_qs.arg(literal);
    eval("var r = db.query('q');"_qs);
    QVERIFY2(truth(isSame + "(r.a[0])"_qs), qPrintable(text("typeof r.a[0] + ' ' + r.a[0]"_qs)));
    QVERIFY(truth("r.fields_index[0][0] === r.a[0] || r.a[0] !== r.a[0]"_qs));
    eval("var t; db.query_thread(function(result) { t = result; }, 'q');"_qs);
    QVERIFY(host().waitForScript("t !== undefined"_qs));
    QVERIFY2(truth(isSame + "(t.a[0])"_qs), qPrintable(text("typeof t.a[0] + ' ' + t.a[0]"_qs)));
}

void TestConversion::valueBecomesItsScriptType_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("literal");
    QTest::newRow("Bool true") << QVariant(true) << "true"_qs;
    QTest::newRow("Bool false") << QVariant(false) << "false"_qs;
    QTest::newRow("Int") << QVariant(42) << "42"_qs;
    QTest::newRow("Int least") << QVariant(INT_MIN) << "-2147483648"_qs;
    QTest::newRow("Int most") << QVariant(INT_MAX) << "2147483647"_qs;
    QTest::newRow("UInt most") << QVariant(UINT_MAX) << "4294967295"_qs;
    QTest::newRow("UInt zero") << QVariant(0u) << "0"_qs;
    QTest::newRow("LongLong") << QVariant(Q_INT64_C(-5000000000)) << "-5000000000"_qs;
    QTest::newRow("LongLong least") << QVariant(qint64(INT64_MIN)) << "-9223372036854775808"_qs;
    QTest::newRow("ULongLong most") << QVariant(quint64(UINT64_MAX)) << "18446744073709551615"_qs;
    QTest::newRow("ULongLong beyond signed")
        << QVariant(Q_UINT64_C(9223372036854775808)) << "9223372036854775808"_qs;
    QTest::newRow("Double") << QVariant(-2.5) << "-2.5"_qs;
    QTest::newRow("Double NaN") << QVariant(qQNaN()) << "NaN"_qs;
    QTest::newRow("Double infinity") << QVariant(-qInf()) << "-Infinity"_qs;
    QTest::newRow("Double negative zero") << QVariant(-0.0) << "-0"_qs;
    QTest::newRow("Double least") << QVariant(5e-324) << "5e-324"_qs;
    QTest::newRow("Float") << QVariant(2.5f) << "2.5"_qs;
    QTest::newRow("Float inexact") << QVariant(0.1f) << "0.10000000149011612"_qs;
    QTest::newRow("String") << QVariant("text"_qs) << "'text'"_qs;
    QTest::newRow("String empty") << QVariant(""_qs) << "''"_qs;
    QTest::newRow("String of a number") << QVariant("42"_qs) << "'42'"_qs;
}

void TestConversion::valueBecomesItsScriptType()
{
    QFETCH(QVariant, value);
    QFETCH(QString, literal);
    openStub("STUB"_qs);
    for (const QString &enabled : {"true"_qs, "false"_qs}) {
        eval("db.enableNull = %1;"_qs.arg(enabled));
        checkValue(value, literal);
    }
}

void TestConversion::otherTypesConvertAsTheEngineDoes_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("QByteArray") << QVariant(QByteArray("a\0b", 3));
    QTest::newRow("QByteArray empty") << QVariant(QByteArray(""));
    QTest::newRow("QDate") << QVariant(QDate(2020, 2, 29));
    QTest::newRow("QTime") << QVariant(QTime(23, 59, 58, 7));
    QTest::newRow("QDateTime") << QVariant(QDateTime(QDate(2020, 2, 29), QTime(1, 2, 3)));
    QTest::newRow("QStringList") << QVariant(QStringList{"a"_qs, "b"_qs});
    QTest::newRow("QVariantList") << QVariant(QVariantList{1, "b"_qs});
    QTest::newRow("QVariantMap") << QVariant(QVariantMap{{"k"_qs, 5}});
    QTest::newRow("QUrl") << QVariant(QUrl("http://127.0.0.1/x"_qs));
    QTest::newRow("QUuid") << QVariant(QUuid("{67c8770b-44f1-410a-ab9a-f9b5446f13ee}"_qs));
    QTest::newRow("QChar") << QVariant(QChar(QLatin1Char('c')));
    QTest::newRow("Short") << QVariant::fromValue<short>(-7);
    QTest::newRow("UShort") << QVariant::fromValue<ushort>(65535);
    QTest::newRow("Long") << QVariant::fromValue<long>(7);
    QTest::newRow("SChar") << QVariant::fromValue<signed char>(7);
}

void TestConversion::otherTypesConvertAsTheEngineDoes()
{
    QFETCH(QVariant, value);
    openStub("STUB"_qs).setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{value}}));
    const QScriptValue expected = host().engine()->toScriptValue(value);
    const QScriptValue seen = eval("db.query('q').a[0]"_qs);
    QCOMPARE(seen.isVariant(), expected.isVariant());
    QCOMPARE(seen.isDate(), expected.isDate());
    QCOMPARE(seen.isArray(), expected.isArray());
    QCOMPARE(seen.isNumber(), expected.isNumber());
    QCOMPARE(seen.isString(), expected.isString());
    QCOMPARE(seen.toVariant(), expected.toVariant());
    QCOMPARE(seen.toString(), expected.toString());
    QCOMPARE(number("db.queryResult.fields_types[0]"_qs), double(value.userType()));
}

void TestConversion::nullIsNullWhileEnabled_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("no type") << QVariant();
    QTest::newRow("Bool") << nullOf(QMetaType::Bool);
    QTest::newRow("Int") << nullOf(QMetaType::Int);
    QTest::newRow("UInt") << nullOf(QMetaType::UInt);
    QTest::newRow("LongLong") << nullOf(QMetaType::LongLong);
    QTest::newRow("ULongLong") << nullOf(QMetaType::ULongLong);
    QTest::newRow("Double") << nullOf(QMetaType::Double);
    QTest::newRow("Float") << nullOf(QMetaType::Float);
    QTest::newRow("String") << nullOf(QMetaType::QString);
    QTest::newRow("null string value") << QVariant(QString());
    QTest::newRow("ByteArray") << nullOf(QMetaType::QByteArray);
    QTest::newRow("Date") << nullOf(QMetaType::QDate);
    QTest::newRow("invalid date value") << QVariant(QDate());
    QTest::newRow("Time") << nullOf(QMetaType::QTime);
    QTest::newRow("DateTime") << nullOf(QMetaType::QDateTime);
}

void TestConversion::nullIsNullWhileEnabled()
{
    QFETCH(QVariant, value);
    QVERIFY(value.isNull());
    openStub("STUB"_qs);
    checkValue(value, "null"_qs);
    QCOMPARE(json("[r.fields_nulls, t.fields_nulls]"_qs), "[[[0]],[[0]]]"_qs);
}

void TestConversion::nullConvertsAsAValueWhileDisabled_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("literal");
    QTest::newRow("no type") << QVariant() << "undefined"_qs;
    QTest::newRow("Bool") << nullOf(QMetaType::Bool) << "false"_qs;
    QTest::newRow("Int") << nullOf(QMetaType::Int) << "0"_qs;
    QTest::newRow("UInt") << nullOf(QMetaType::UInt) << "0"_qs;
    QTest::newRow("LongLong") << nullOf(QMetaType::LongLong) << "0"_qs;
    QTest::newRow("ULongLong") << nullOf(QMetaType::ULongLong) << "0"_qs;
    QTest::newRow("Double") << nullOf(QMetaType::Double) << "0"_qs;
    QTest::newRow("Float") << nullOf(QMetaType::Float) << "0"_qs;
    QTest::newRow("String") << nullOf(QMetaType::QString) << "''"_qs;
    QTest::newRow("null string value") << QVariant(QString()) << "''"_qs;
}

void TestConversion::nullConvertsAsAValueWhileDisabled()
{
    QFETCH(QVariant, value);
    QFETCH(QString, literal);
    openStub("STUB"_qs);
    eval("db.enableNull = false;"_qs);
    checkValue(value, literal);
    QCOMPARE(json("[r.fields_nulls, t.fields_nulls]"_qs), "[[[0]],[[0]]]"_qs);
}

void TestConversion::nullWithoutATypeIsLeftUndefinedWhileDisabled()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::Int}}, {{1}, {QVariant()}, {3}, {QVariant()}}));
    eval("db.enableNull = false; var r = db.query('q');"_qs);
    QCOMPARE(json("[r.a.length, r.rows, 1 in r.a, 3 in r.a, r.a[0], r.a[2], r.fields_nulls]"_qs),
             "[4,4,false,false,1,3,[[1,3]]]"_qs);
}

void TestConversion::nullsOfOtherTypesConvertAsTheEngineDoes()
{
    const QVariantList nulls{nullOf(QMetaType::QByteArray), nullOf(QMetaType::QDate),
                             nullOf(QMetaType::QTime), nullOf(QMetaType::QDateTime)};
    openStub("STUB"_qs);
    eval("db.enableNull = false;"_qs);
    for (const QVariant &null : nulls) {
        stub().setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{null}}));
        const QScriptValue expected = host().engine()->toScriptValue(null);
        const QScriptValue seen = eval("db.query('q').a[0]"_qs);
        QVERIFY2(!seen.isNull() && !seen.isUndefined(), null.typeName());
        QCOMPARE(seen.isVariant(), expected.isVariant());
        QCOMPARE(seen.isDate(), expected.isDate());
        QCOMPARE(seen.toString(), expected.toString());
    }
}

void TestConversion::nullsAreNumberedEitherWay()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::Int}, {"b"_qs, QVariant::Int}},
                         {{nullOf(QMetaType::Int), 1},
                          {5, nullOf(QMetaType::Int)},
                          {nullOf(QMetaType::Int), QVariant()}}));
    for (const QString &enabled : {"true"_qs, "false"_qs}) {
        eval("db.enableNull = %1; var r = db.query('q');"_qs.arg(enabled));
        QCOMPARE(json("[r.fields_nulls, r.fields_types]"_qs), "[[[0,2],[1,2]],[2,2]]"_qs);
    }
    QCOMPARE(json("r.a"_qs), "[0,5,0]"_qs);
}

void TestConversion::enableNullIsOnAtFirst()
{
    QVERIFY(truth("new VEXT_SQL().enableNull"_qs));
}

void TestConversion::enableNullCountsAtDelivery()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::Int}}, {{nullOf(QMetaType::Int)}}).withGate(gate));
    recordAnswers();
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(gate->waitReached());
    eval("db.enableNull = false;"_qs);
    gate->release();
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("answers[0][0].a"_qs), "[0]"_qs);
}

void TestConversion::sqliteNullsFollowEnableNull()
{
    openSqlite();
    eval("db.query('create table t(i integer, s text)');"
         "db.query(\"insert into t values(null, 'a'), (1, null)\");"
         "var r = db.query('select * from t');"_qs);
    QCOMPARE(json("[r.i, r.s, r.fields_nulls]"_qs), "[[null,1],[\"a\",null],[[0],[1]]]"_qs);
    eval("db.enableNull = false; r = db.query('select * from t');"_qs);
    QVERIFY(truth("r.i[0] !== null && r.s[1] !== null"_qs));
    QCOMPARE(json("r.fields_nulls"_qs), "[[0],[1]]"_qs);
}

void TestConversion::largeNumbersLoseOnlyWhatDoublesLose()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::LongLong}},
                         {{Q_INT64_C(9007199254740992)}, {Q_INT64_C(9007199254740993)}}));
    eval("var r = db.query('q');"_qs);
    QVERIFY(truth("r.a[0] === 9007199254740992 && r.a[1] === 9007199254740992"_qs));
}

void TestConversion::textsKeepEveryCharacter()
{
    const QString odd = "a\0b\u0416\U0001F600\n"_qs + QChar(0xd800);
    const QString huge(1000000, QLatin1Char('x'));
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::String}}, {{odd}, {huge}, {""_qs}}));
    eval("var r = db.query('q');"_qs);
    QCOMPARE(eval("r.a[0]"_qs).toString(), odd);
    QCOMPARE(number("r.a[0].length"_qs), double(odd.size()));
    QVERIFY(eval("r.a[1]"_qs).toString() == huge);
    QVERIFY(truth("r.a[2] === ''"_qs));
}

void TestConversion::everyCellOfAColumnIsConverted_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("rows");
    for (int kind = 0; kind < columnKinds.size(); ++kind) {
        for (const int rows : {1, 64, 65, 1024, 1025, 2049}) {
            QTest::newRow(qPrintable(
                QStringLiteral("%1 %2").arg(QLatin1String(columnKinds.at(kind).first)).arg(rows)))
                << kind << rows;
        }
    }
}

void TestConversion::everyCellOfAColumnIsConverted()
{
    QFETCH(int, kind);
    QFETCH(int, rows);
    const CellOf plain = columnKinds.at(kind).second;
    // One column for each pattern of nulls, with nulls of the column's type and without a type.
    QVector<CellOf> columns;
    QVector<StubReply::Column> names;
    for (const auto &[name, isNull] : nullPatterns) {
        const IsNull pattern = isNull;
        columns.append([plain, pattern](int row) {
            const QVariant cell = plain(row);
            return pattern(row) ? nullOf(cell.userType()) : cell;
        });
        columns.append(
            [plain, pattern](int row) { return pattern(row) ? QVariant() : plain(row); });
        names.append({QLatin1String(name) + ", typed"_qs, QVariant::Int});
        names.append({QLatin1String(name) + ", untyped"_qs, QVariant::Int});
    }
    const auto source = [&columns](int row) {
        QVariantList cells;
        for (const CellOf &cell : columns)
            cells.append(cell(row));
        return cells;
    };
    openStub("STUB"_qs).setDefaultReply(StubReply::generated(names, rows, source));
    for (const bool enableNull : {true, false}) {
        eval("db.enableNull = %1;"_qs.arg(enableNull ? "true"_qs : "false"_qs));
        const QScriptValue index = eval("db.query('q').fields_index"_qs);
        const QScriptValue nulls = eval("db.queryResult.fields_nulls"_qs);
        for (int c = 0; c < columns.size(); ++c) {
            const QScriptValue values = index.property(quint32(c));
            QVERIFY(values.isArray());
            QCOMPARE(values.property("length"_qs).toInt32(), rows);
            quint32 nullCount = 0;
            for (int row = 0; row < rows; ++row) {
                const QVariant cell = columns.at(c)(row);
                const QString where = "%1 row %2"_qs.arg(names.at(c).first).arg(row);
                QVERIFY2(isConverted(values.property(quint32(row)), cell, enableNull),
                         qPrintable(where));
                if (cell.isNull()) {
                    QVERIFY2(nulls.property(quint32(c)).property(nullCount).toInt32() == row,
                             qPrintable(where));
                    ++nullCount;
                }
            }
            QCOMPARE(nulls.property(quint32(c)).property("length"_qs).toUInt32(), nullCount);
        }
    }
}

void TestConversion::scriptsOwnPushIsNotUsed()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::generated(
        {{"a"_qs, QVariant::Int}}, 5000, [](int row) { return QVariantList{row}; }));
    eval("var pushes = 0; Array.prototype.push = function() { ++pushes; throw new Error('mine'); };"
         "var r = db.query('q'), good = r.a.length === 5000;"
         "for (var i = 0; i < 5000; ++i) good = good && r.a[i] === i;"
         "delete Array.prototype.push; var s = db.query('q'), n = s.a.length;"_qs);
    QVERIFY(truth("good && pushes === 0 && n === 5000 && s.a[4999] === 4999"_qs));
}

void TestConversion::columnsOfOneResultAreArraysOfTheirOwn()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::String}, {"b"_qs, QVariant::String}},
                         {{"x"_qs, "x"_qs}, {"x"_qs, "x"_qs}}));
    eval(
        "var r = db.query('q'); r.a[0] = 'changed'; r.a.push('more'); r.fields_nulls[0].push(7);"_qs);
    QCOMPARE(json("[r.a, r.b, r.fields_nulls, r.rows]"_qs),
             "[[\"changed\",\"x\",\"more\"],[\"x\",\"x\"],[[7],[]],2]"_qs);
}

QTEST_GUILESS_MAIN(TestConversion)
#include "test_conversion.moc"
