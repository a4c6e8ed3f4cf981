#include "client_library.h"

#include <dlfcn.h>

ClientLibrary::ClientLibrary(std::initializer_list<const char *> names)
{
    for (const char *name : names) {
        m_handle = ::dlopen(name, RTLD_LAZY | RTLD_NOLOAD);
        if (m_handle)
            return;
    }
}

void *ClientLibrary::symbol(const char *name) const
{
    return m_handle ? ::dlsym(m_handle, name) : nullptr;
}
