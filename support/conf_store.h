#ifndef ARSP_SUPPORT_CONF_STORE_H
#define ARSP_SUPPORT_CONF_STORE_H

#include <cstdint>
#include <memory>

namespace arsp {
struct ConfPair {
    char *name;
    char *value;
};
} // namespace arsp

/* The pairs read from kel.conf. It owns all of them, allocated with malloc. All zero is an empty store. */
struct ConfStore {
    arsp::ConfPair *entries;
    uint64_t capacity; /* pairs allocated */
    uint64_t count;    /* pairs in use */
    int32_t sorted;    /* 1: the pairs are in ascending strcmp order of their names */
};

/* Makes room for one more pair. Returns 0; or -1 with errno ENOMEM and the store as it was, after logging
 * "Unable to read configuration: ..." at LOG_USER | LOG_WARNING. */
[[nodiscard]] int conf_store_grow(ConfStore *store);

/* Stores a copy of `name` and `value`; a name that exists gets the new value. Returns 0; or -1 with errno ENOMEM and
 * the pairs as they were, after logging the message of conf_store_grow, or "Unable to form configuration: ..." at
 * LOG_USER | LOG_WARNING. */
[[nodiscard]] int conf_store_set(const char *name, const char *value, ConfStore *store);

/* Sorts the pairs by name. conf_store_find then uses a binary search, until conf_store_set adds a name. */
void conf_store_sort(ConfStore *store);

/* Returns the value of `name`, which the store owns, or null. */
[[nodiscard]] const char *conf_store_find(const char *name, const ConfStore *store);

/* Frees the pairs and the store itself, which malloc allocated. Ignores a null pointer. */
void conf_store_free(ConfStore *store);

namespace arsp {
struct FreeConfStore {
    void operator()(ConfStore *store) const { conf_store_free(store); }
};
using ConfStorePtr = std::unique_ptr<ConfStore, FreeConfStore>;
} // namespace arsp

#endif
