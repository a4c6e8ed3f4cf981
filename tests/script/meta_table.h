/// @file
/// The tables of a meta-object as lines of text, so that a test can state them literally.
#pragma once

#include <QMetaClassInfo>
#include <QMetaMethod>
#include <QMetaObject>
#include <QMetaProperty>
#include <QStringList>

/// One line a method that the class itself declares:
/// "index kind access [clone] result signature", the index counted from the class's first.
inline QStringList ownMethods(const QMetaObject &meta)
{
    static const char *const kinds[] = {"method", "signal", "slot", "constructor"};
    static const char *const accesses[] = {"private", "protected", "public"};
    QStringList lines;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        QStringList items{QString::number(i - meta.methodOffset()),
                          QLatin1String(kinds[method.methodType()]),
                          QLatin1String(accesses[method.access()])};
        if (method.attributes() & QMetaMethod::Cloned)
            items.append(QStringLiteral("clone"));
        items.append(QLatin1String(method.typeName()));
        items.append(QString::fromLatin1(method.methodSignature()));
        lines.append(items.join(QLatin1Char(' ')));
    }
    return lines;
}

/// One line a property that the class itself declares: "index name type rw|r flags…".
inline QStringList ownProperties(const QMetaObject &meta)
{
    QStringList lines;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        QStringList items{QString::number(i - meta.propertyOffset()),
                          QLatin1String(property.name()), QLatin1String(property.typeName()),
                          property.isWritable() ? QStringLiteral("rw") : QStringLiteral("r")};
        const auto flag = [&items](bool on, const char *name) {
            if (on)
                items.append(QLatin1String(name));
        };
        flag(!property.isReadable(), "unreadable");
        flag(property.isDesignable(), "designable");
        flag(property.isScriptable(), "scriptable");
        flag(property.isStored(), "stored");
        flag(property.isUser(), "user");
        flag(property.isConstant(), "constant");
        flag(property.isFinal(), "final");
        flag(property.isResettable(), "resettable");
        flag(property.hasNotifySignal(), "notify");
        flag(property.isEnumType(), "enum");
        lines.append(items.join(QLatin1Char(' ')));
    }
    return lines;
}

/// Names of the class-info entries that the class itself declares.
inline QStringList ownClassInfos(const QMetaObject &meta)
{
    QStringList names;
    for (int i = meta.classInfoOffset(); i < meta.classInfoCount(); ++i)
        names.append(QLatin1String(meta.classInfo(i).name()));
    return names;
}

/// Names of a method's parameters, empty for unnamed ones.
inline QStringList parameterNames(const QMetaObject &meta, const char *signature)
{
    QStringList names;
    const auto list = meta.method(meta.indexOfMethod(signature)).parameterNames();
    for (const QByteArray &name : list)
        names.append(QString::fromLatin1(name));
    return names;
}
