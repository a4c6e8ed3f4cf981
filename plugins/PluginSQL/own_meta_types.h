/// @file
/// Meta-types that this library registers, and takes back when it is unloaded.
#pragma once

#include <QMetaType>

/// Qt's registry keeps pointers to functions of whoever registers a type first. They must not stay
/// behind when the library goes: a second load, at another address, would find and call them.
///
/// Types that somebody else registered before are left alone. Any thread.
class OwnMetaTypes
{
public:
    /// Registers `T` under `name`. @return its id.
    template <typename T>
    static int add(const char *name)
    {
        const bool known = QMetaType::type(name) != QMetaType::UnknownType;
        // Without the mark of a declared type, which Qt would keep for ever.
        const int id = QMetaType::registerNormalizedType(
            QMetaObject::normalizedType(name),
            QtMetaTypePrivate::QMetaTypeFunctionHelper<T>::Destruct,
            QtMetaTypePrivate::QMetaTypeFunctionHelper<T>::Construct, int(sizeof(T)),
            QMetaType::TypeFlags(QtPrivate::QMetaTypeTypeFlags<T>::Flags),
            QtPrivate::MetaObjectForType<T>::value());
        if (!known)
            remember(id);
        return id;
    }

    /// Takes every type back that add() brought. No value of them may be left.
    static void removeAll();

private:
    static void remember(int id);
};
