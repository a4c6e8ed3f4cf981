/// @file
/// Functions of a database's own client library.
#pragma once

#include <initializer_list>

/// The copy of a client library that the stock driver has loaded. Nothing is loaded a second time,
/// and no development package is needed: the functions are looked up by their names. Immutable and
/// usable in any thread; the library stays loaded for the life of the process.
class ClientLibrary
{
public:
    ClientLibrary() = default;

    /// Finds the first of the names ("libpq.so.5") that is loaded in this process.
    explicit ClientLibrary(std::initializer_list<const char *> names);

    bool isLoaded() const { return m_handle != nullptr; }

    /// Sets @p function to the library's function of that name. @return false when there is none;
    /// the pointer is null then
    template <typename Function>
    bool resolve(const char *name, Function *&function) const
    {
        function = reinterpret_cast<Function *>(symbol(name));
        return function != nullptr;
    }

private:
    void *symbol(const char *name) const;

    void *m_handle = nullptr; ///< kept for the life of the process
};
