// The end of a statement whose time is over: the deadline that asks for it, and the gate that knows
// whether the statement still runs.
#include "cancel_gate.h"
#include "deadline_watch.h"

#include <QDeadlineTimer>
#include <QtTest>

#include <atomic>
#include <memory>

namespace
{

class Requests : public CancelGate::Interrupter
{
public:
    void interrupt(CancelGate::Phase, bool) override { ++count; }
    bool settle() override { return true; }
    int count = 0;
};

} // namespace

class TestStatementLimit : public QObject
{
    Q_OBJECT

private slots:
    void requestIsMadeAgainUntilTheStatementEnds();
    void statementThatIsCancelledNeedsNoLimit();
    void deadlineComesAgainWhileItsActionWantsTo();
    void removedDeadlineStaysAway();
};

/// The first one may have come between two calls of the statement, where it ends nothing.
void TestStatementLimit::requestIsMadeAgainUntilTheStatementEnds()
{
    CancelGate gate;
    Requests requests;
    gate.setInterrupter(&requests);
    CancelGate::Statement statement;
    gate.run(statement);
    QVERIFY(gate.timeOut(statement));
    QVERIFY(gate.timeOut(statement));
    QCOMPARE(requests.count, 2);
    QVERIFY(statement.reason() == CancelGate::Reason::TimedOut);
    gate.end(statement);
    QVERIFY(!gate.timeOut(statement));
    QCOMPARE(requests.count, 2);
}

void TestStatementLimit::statementThatIsCancelledNeedsNoLimit()
{
    CancelGate gate;
    CancelGate::Statement statement;
    gate.run(statement);
    QVERIFY(gate.cancel());
    QVERIFY(!gate.timeOut(statement));
    QVERIFY(statement.reason() == CancelGate::Reason::Asked);
    gate.end(statement);
}

void TestStatementLimit::deadlineComesAgainWhileItsActionWantsTo()
{
    constexpr int Wanted = 3;
    std::atomic<int> calls{0};
    const DeadlineWatch::Id id =
        DeadlineWatch::instance().repeat(1, 1, [&calls] { return ++calls < Wanted; });
    QTRY_COMPARE(calls.load(), Wanted);
    // Others go on to be served, and by then it would have come again.
    std::atomic<bool> isLater{false};
    const DeadlineWatch::Id later = DeadlineWatch::instance().add(50, [&] { isLater = true; });
    QTRY_VERIFY(isLater);
    QCOMPARE(calls.load(), Wanted);
    DeadlineWatch::instance().remove(id);
    DeadlineWatch::instance().remove(later);
}

/// Also one whose action runs at the time: it wants to come again, and does not.
void TestStatementLimit::removedDeadlineStaysAway()
{
    for (int round = 0; round < 200; ++round) {
        auto calls = std::make_shared<std::atomic<int>>(0);
        const DeadlineWatch::Id id = DeadlineWatch::instance().repeat(0, 0, [calls] {
            ++*calls;
            return true;
        });
        const QDeadlineTimer limit(5000);
        while (*calls == 0 && !limit.hasExpired())
            QTest::qSleep(1);
        QVERIFY(*calls > 0);
        DeadlineWatch::instance().remove(id);
        const int last = *calls;
        QTest::qSleep(1);
        QCOMPARE(calls->load(), last);
    }
}

QTEST_APPLESS_MAIN(TestStatementLimit)

#include "test_statement_limit.moc"
