#include "support/conf.h"

#include <cstdlib>
#include <cstring>

#include "support/conf_parse.h"
#include "support/conf_store.h"
#include "support/log.h"

using namespace arsp;

namespace {

ConfStore *loaded_store = nullptr;

/* The file's values, never defaults. They point into the loaded store, which does not change any more. */
const char *value_cache[CONF_VAR_COUNT] = {};

} // namespace

int conf_load()
{
    if (loaded_store != nullptr)
        return 0;
    ConfStorePtr store(static_cast<ConfStore *>(std::calloc(1, sizeof(ConfStore))));
    if (store == nullptr) {
        log_message(LOG_ERR, "Not enough memory to allocate Quarn runtime configuration structure");
        return -1;
    }
    if (conf_parse_file(KEL_CONF_PATH, store.get()) != 0)
        return -1;
    loaded_store = store.release();
    return 0;
}

const char *conf_lookup(const char *name)
{
    return conf_load() == 0 ? conf_store_find(name, loaded_store) : nullptr;
}

const char *conf_file_value(ConfVarIndex index)
{
    if (value_cache[index] == nullptr)
        value_cache[index] = conf_lookup(CONF_VAR_NAMES[index]);
    return value_cache[index];
}

const char *conf_get(ConfVarIndex index)
{
    const char *value = conf_file_value(index);
    return value != nullptr ? value : CONF_VAR_DEFAULTS[index];
}

const char *conf_get_by_name(const char *name)
{
    for (int index = CONF_MIN_POSSIBLE_KEL_CONF_VAR; index < CONF_MAX_POSSIBLE_KEL_CONF_VAR; ++index) {
        if (std::strcmp(name, CONF_VAR_NAMES[index]) == 0)
            return conf_get(static_cast<ConfVarIndex>(index));
    }
    log_message(LOG_ERR, "variable '%s' was found neither in %s, nor in compile-time defaults", name, KEL_CONF_PATH);
    return nullptr;
}
