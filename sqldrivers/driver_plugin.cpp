/// @file
/// The entry through which Qt finds the layer: a driver plugin under the stock drivers' own keys.

#include "decorated_driver.h"

#include <QSqlDriverPlugin>

class VextDriverPlugin : public QSqlDriverPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QSqlDriverFactoryInterface_iid FILE "driver_plugin.json")

public:
    QSqlDriver *create(const QString &key) override { return new DecoratedDriver(key); }
};

#include "driver_plugin.moc"
