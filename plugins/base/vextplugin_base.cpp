#include "vextplugin_base.h"

#include "debug_line.h"
#include "lasting_text.h"
#include "script_guard.h"

#include <QCoreApplication>
#include <QMutexLocker>

namespace
{

const char SourceFile[] = "plugins/base/vextplugin_base";

// The lines that the messages of this file carry.
constexpr int LineSetTraceLog = 52;
constexpr int LineConnectMsg = 87;
constexpr int LineIsGuiAppMessage = 144;
constexpr int LineIsGuiAppLog = 146;

constexpr int LevelNotice = 0;
constexpr int LevelTrace = 1;

constexpr int GuiUnknown = -1;

const QLatin1String PostClass("VextPost");
const QLatin1String ServerClass("VextServer");

/// Guards Plugin_base::m_isGuiApp, as script engines may live in different threads. Never held
/// while the host or a script is asked.
QBasicMutex guiAnswerMutex;

int guiAnswer()
{
    const QMutexLocker lock(&guiAnswerMutex);
    return Plugin_base::m_isGuiApp;
}

bool storeGuiAnswer(int answer)
{
    const QMutexLocker lock(&guiAnswerMutex);
    Plugin_base::m_isGuiApp = answer;
    return answer > 0;
}

/// The "gui" of the script's global "server".
/// @return GuiUnknown when there is no such object, or it cannot be read.
int askScript(QScriptEngine *engine)
{
    const ScriptGuard guard(engine);
    // Getters would answer with the pending exception, which is no answer to the question.
    if (guard.pendingBefore())
        return GuiUnknown;
    const QScriptValue server = readProperty(engine->globalObject(), QStringLiteral("server"));
    if (!server.isObject())
        return GuiUnknown;
    const bool gui = server.property(QStringLiteral("gui")).toBool();
    return guard.threw() ? GuiUnknown : int(gui);
}

QObject *applicationServer()
{
    const QCoreApplication *application = QCoreApplication::instance();
    return application ? application->findChild<QObject *>(QStringLiteral("server")) : nullptr;
}

QLatin1String classNameOf(const QObject *object)
{
    return QLatin1String(object->metaObject()->className());
}

/// The object behind a script global, if the class name contains `className`.
QObject *globalOfClass(QScriptEngine *engine, const QString &name, QLatin1String className)
{
    QObject *object = readProperty(engine->globalObject(), name).toQObject();
    return object && QString(classNameOf(object)).contains(className) ? object : nullptr;
}

/// Announces the ports that `obj` opens and releases to the server, if it has such signals.
void connectPortSignals(QObject *obj, QObject *server)
{
    const QMetaObject *meta = obj->metaObject();
    if (meta->indexOfSignal("aTcp(quint16)") >= 0) {
        QObject::connect(obj, SIGNAL(aTcp(quint16)), server, SLOT(aTcp(quint16)),
                         Qt::UniqueConnection);
        QObject::connect(obj, SIGNAL(rTcp(quint16)), server, SLOT(rTcp(quint16)),
                         Qt::UniqueConnection);
    }
    if (meta->indexOfSignal("aUdp(quint16)") >= 0) {
        QObject::connect(obj, SIGNAL(aUdp(quint16)), server, SLOT(aUdp(quint16)),
                         Qt::UniqueConnection);
        QObject::connect(obj, SIGNAL(rUdp(quint16)), server, SLOT(rUdp(quint16)),
                         Qt::UniqueConnection);
    }
}

} // namespace

int Plugin_base::m_isGuiApp = GuiUnknown;

Plugin_base::Plugin_base(QObject *parent, QScriptEngine *engine)
    : QObject(parent)
    , m_engine(engine)
{
    if (m_engine)
        isGuiApp();
}

Plugin_base::~Plugin_base() = default;

void Plugin_base::setTraceLog(bool on)
{
    if (on == m_traceLog)
        return;
    m_traceLog = on;
    const QString state = on ? QObject::tr("включена") : QObject::tr("выключена");
    emit s_msg(lastingText(SourceFile), LineSetTraceLog, lastingText("setTraceLog"),
               QObject::tr("трассировка %1").arg(state), LevelTrace);
}

void Plugin_base::disableTraceLog()
{
    setTraceLog(false);
}

void Plugin_base::enableTraceLog(bool trace)
{
    setTraceLog(trace);
}

bool Plugin_base::setScriptValueThis(const QScriptValue &scriptValue)
{
    if (!scriptValue.isQObject() || scriptValue.toQObject() != this)
        return false;
    m_scriptValueThis = scriptValue;
    return true;
}

QScriptValue Plugin_base::getScriptValueThis(QScriptEngine *engine)
{
    if (engine && !m_scriptValueThis.isQObject())
        m_scriptValueThis = engine->newQObject(this, QScriptEngine::QtOwnership,
                                               QScriptEngine::ExcludeChildObjects);
    return m_scriptValueThis;
}

QScriptValue Plugin_base::throwScript(const QString &text, QScriptContext::Error error)
{
    if (m_engine && m_engine->currentContext())
        return m_engine->currentContext()->throwError(error, text);
    return QScriptValue(false);
}

void Plugin_base::connect_msg(QObject *sender, QObject *receiver)
{
    // By signature: the receiver's class belongs to the host and is not known here.
    // clang-format off
    if (QObject::connect(sender, SIGNAL(s_msg(const char*,int,const char*,const QString&,int)),
                         receiver, SLOT(plugin_msg(const char*,int,const char*,const QString&,int)),
                         Qt::UniqueConnection))
        // clang-format on
        return;
    DebugLine::critical(SourceFile, LineConnectMsg, "connect_msg") << "err conn sender" << sender;
    // Only the first line of the pair is marked, so that an error counts once.
    DebugLine::critical(SourceFile, LineConnectMsg, "connect_msg", DebugLine::Mark::None)
        << "post" << receiver;
}

void Plugin_base::connect_msg(QObject *sender)
{
    if (!sender)
        return;
    for (QObject *object = sender; object; object = object->parent()) {
        if (QString(classNameOf(object)).startsWith(PostClass)) {
            connect_msg(sender, object);
            return;
        }
    }
    QObject *server = applicationServer();
    if (server && QString(classNameOf(server)).startsWith(ServerClass))
        connect_msg(sender, server);
}

bool Plugin_base::loadLib(QObject *loader, const QString &name)
{
    return QMetaObject::invokeMethod(loader, "loadLib", Qt::AutoConnection,
                                     Q_RETURN_ARG(bool, m_libResult), Q_ARG(QString, name)) &&
           m_libResult;
}

bool Plugin_base::isGuiApp()
{
    const int known = guiAnswer();
    if (known > GuiUnknown)
        return known > 0;
    if (m_engine) {
        const int answer = askScript(m_engine);
        return answer > GuiUnknown && storeGuiAnswer(answer);
    }
    QObject *server = applicationServer();
    if (!server)
        return false;
    int answer = GuiUnknown;
    if (QMetaObject::invokeMethod(server, "isGuiApp", Qt::AutoConnection,
                                  Q_RETURN_ARG(int, answer)))
        return storeGuiAnswer(answer);
    // Not translated: the text is for the developers of hosts.
    const QString text =
        QStringLiteral("no invokeMethod VextServer::isGuiApp: %1").arg(classNameOf(server));
    emit s_msg(lastingText(SourceFile), LineIsGuiAppMessage, lastingText("isGuiApp"), text,
               LevelNotice);
    DebugLine::critical(SourceFile, LineIsGuiAppLog, "isGuiApp") << qUtf8Printable(text);
    return guiAnswer() > 0;
}

void Plugin_base::msg(const char *fl, int ln, const char *fn, const QString &msg, int val)
{
    emit s_msg(fl, ln, fn, msg, val);
}

void insertObjectToPost(QScriptEngine *engine, QObject *obj)
{
    if (!engine || !obj)
        return;
    const QPointer<QObject> guarded(obj);
    if (QObject *post = globalOfClass(engine, QStringLiteral("post"), PostClass))
        QMetaObject::invokeMethod(post, "insertObject", QArgument<QObject *>("QObject*", obj),
                                  Q_ARG(QString, obj->objectName()));
    QObject *server = globalOfClass(engine, QStringLiteral("server"), ServerClass);
    // The post may have refused the object by deleting it.
    if (server && guarded)
        connectPortSignals(obj, server);
}
