#include "support/conf_store.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <search.h>

#include "support/c_handles.h"
#include "support/log.h"

using namespace arsp;

namespace {

constexpr uint64_t FIRST_CAPACITY = 20; /* pairs */

int compare_names(const void *left, const void *right)
{
    return std::strcmp(static_cast<const ConfPair *>(left)->name, static_cast<const ConfPair *>(right)->name);
}

/* Returns the pairs in a block of twice the size; or null, with the old block untouched. */
ConfPair *double_capacity(const ConfStore &store)
{
    if (store.capacity > UINT64_MAX / 2)
        return nullptr;
    return static_cast<ConfPair *>(reallocarray(store.entries, store.capacity * 2, sizeof(ConfPair)));
}

} // namespace

int conf_store_grow(ConfStore *store)
{
    ConfPair *entries = store->entries;
    uint64_t capacity = store->capacity;
    if (entries == nullptr) {
        capacity = FIRST_CAPACITY;
        entries = static_cast<ConfPair *>(std::calloc(capacity, sizeof(ConfPair)));
        store->count = 0;
        store->sorted = 1;
    } else if (store->count == capacity) {
        entries = double_capacity(*store);
        capacity *= 2;
    }
    if (entries == nullptr) {
        log_message(LOG_USER | LOG_WARNING, "Unable to read configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    store->entries = entries;
    store->capacity = capacity;
    return 0;
}

int conf_store_set(const char *name, const char *value, ConfStore *store)
{
    if (conf_store_grow(store) != 0)
        return -1;
    CString name_copy(strdup(name));
    CString value_copy(strdup(value));
    if (name_copy == nullptr || value_copy == nullptr) {
        log_message(LOG_USER | LOG_WARNING, "Unable to form configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    const ConfPair pair = {name_copy.get(), value_copy.get()};
    size_t count = store->count;
    auto *place = static_cast<ConfPair *>(lsearch(&pair, store->entries, &count, sizeof pair, compare_names));
    if (count > store->count) {
        static_cast<void>(name_copy.release()); /* the store owns the appended pair */
        store->count = count;
        store->sorted = 0;
    } else {
        const CString old_value(place->value);
        place->value = pair.value;
    }
    static_cast<void>(value_copy.release()); /* likewise */
    return 0;
}

void conf_store_sort(ConfStore *store)
{
    if (store->sorted == 0 && store->count > 0)
        qsort(store->entries, store->count, sizeof *store->entries, compare_names);
    store->sorted = 1;
}

const char *conf_store_find(const char *name, const ConfStore *store)
{
    if (store->count == 0)
        return nullptr; /* an empty store may have no array: the searches require one */
    const ConfPair key = {const_cast<char *>(name), nullptr};
    size_t count = store->count;
    const void *found = store->sorted != 0 ? std::bsearch(&key, store->entries, count, sizeof key, compare_names)
                                           : lfind(&key, store->entries, &count, sizeof key, compare_names);
    return found == nullptr ? nullptr : static_cast<const ConfPair *>(found)->value;
}

void conf_store_free(ConfStore *store)
{
    if (store == nullptr)
        return;
    for (uint64_t i = 0; i < store->count; ++i) {
        std::free(store->entries[i].name);
        std::free(store->entries[i].value);
    }
    std::free(store->entries);
    std::free(store);
}
