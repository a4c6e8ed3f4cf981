// The least that is a plugin of the framework: its object's install() puts one property on the
// this-object of the calling script.
#include <QObject>
#include <QPointer>
#include <QScriptContext>
#include <QScriptEngine>
#include <QtPlugin>

class VextPluginInterface
{
public:
    virtual QObject *globalObject() = 0;
    virtual void globalObjectDelete() = 0;
    virtual const char *vext_plugin_interface() = 0;
    virtual const char *vext_plugin_version() = 0;

protected:
    ~VextPluginInterface() = default;
};

Q_DECLARE_INTERFACE(VextPluginInterface, "Vext.2.9.Qt.5158.gcc1220")

class SelftestObject : public QObject
{
    Q_OBJECT

public:
    Q_INVOKABLE QScriptValue install(QObject *object)
    {
        auto *engine = qobject_cast<QScriptEngine *>(object);
        if (!engine)
            return QScriptValue(false);
        QScriptValue self = engine->currentContext()->thisObject();
        self.setProperty(QStringLiteral("installed"), 7);
        return self;
    }
};

class SelftestPlugin : public QObject, public VextPluginInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Vext.2.9.Qt.5158.gcc1220")
    Q_INTERFACES(VextPluginInterface)

public:
    SelftestPlugin()
        : m_object(new SelftestObject)
    {
    }
    ~SelftestPlugin() override { delete m_object; }

    QObject *globalObject() override { return m_object; }
    void globalObjectDelete() override { delete m_object; }
    const char *vext_plugin_interface() override { return "Vext.2.9.Qt.5158.gcc1220"; }
    const char *vext_plugin_version() override { return "selftest"; }

private:
    QPointer<QObject> m_object;
};

#include "selftest_plugin.moc"
