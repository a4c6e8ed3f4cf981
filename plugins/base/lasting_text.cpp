#include "lasting_text.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstddef>
#include <cstring>
#include <sys/mman.h>

namespace
{

// Plain data without destructors: messages are sent until the library's last static object is gone.
struct Known {
    const char *constant;
    const char *copy;
};

constexpr int MostTexts = 256;
constexpr size_t PageBytes = 4096;

Known known[MostTexts]; ///< textMutex, as everything below
int knownCount = 0;
char *page = nullptr; ///< copies are written behind each other
size_t pageLeft = 0;
QBasicMutex textMutex;

const char *copyOfEqualText(const char *text)
{
    for (int i = 0; i < knownCount; ++i) {
        if (std::strcmp(known[i].copy, text) == 0)
            return known[i].copy;
    }
    return nullptr;
}

/// Pages are mapped, not taken from the heap: nothing points to them once the library is gone, and
/// for a leak checker that would be a leak, which it is on purpose.
const char *newCopy(const char *text)
{
    const size_t bytes = std::strlen(text) + 1;
    if (bytes > PageBytes)
        return nullptr;
    if (bytes > pageLeft) {
        void *mapped =
            ::mmap(nullptr, PageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED)
            return nullptr;
        page = static_cast<char *>(mapped);
        pageLeft = PageBytes;
    }
    char *copy = page;
    std::memcpy(copy, text, bytes);
    page += bytes;
    pageLeft -= bytes;
    return copy;
}

} // namespace

const char *lastingText(const char *text)
{
    if (!text)
        return nullptr;
    const QMutexLocker lock(&textMutex);
    for (int i = 0; i < knownCount; ++i) {
        if (known[i].constant == text && std::strcmp(known[i].copy, text) == 0)
            return known[i].copy;
    }
    const char *copy = copyOfEqualText(text);
    if (!copy)
        copy = newCopy(text);
    // Without room or memory the constant itself serves: it lives as long as the library.
    if (!copy)
        return text;
    if (knownCount < MostTexts)
        known[knownCount++] = {text, copy};
    return copy;
}
